// One client that takes broadcasts.
#ifndef ZU_BENCH_BROADCAST_RECEIVER_H_
#define ZU_BENCH_BROADCAST_RECEIVER_H_

#include <cstddef>
#include <functional>
#include <string>

namespace zu::bench {

// Takes the next message; false when it has another size or none comes.
using Receiver = std::function<bool(size_t size)>;

// Connects, and returns when the server sends to this client too; a null
// function, with a message on standard error, when it does not come to that.
Receiver ConnectReceiver(const std::string& address);

}  // namespace zu::bench

#endif  // ZU_BENCH_BROADCAST_RECEIVER_H_
