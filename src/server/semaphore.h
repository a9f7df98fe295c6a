// The mark that one instance of the agent is running, as the rest of the
// library sees it.
#ifndef ZU_SERVER_SEMAPHORE_H_
#define ZU_SERVER_SEMAPHORE_H_

namespace zu::server {

// For the library's unload: removes the mark, and gives signals that would
// still run the library's handler their default action.
void LeaveSemaphore();

}  // namespace zu::server

#endif  // ZU_SERVER_SEMAPHORE_H_
