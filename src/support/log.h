// The system log.
#ifndef ZU_SUPPORT_LOG_H_
#define ZU_SUPPORT_LOG_H_

namespace zu {

// Writes one line at error priority, whatever its severity. The text is the
// contract of the subsystem that logs it, letter for letter, so nothing is
// added here. Thread-safe.
[[gnu::format(printf, 1, 2)]] void LogError(const char* format, ...);

}  // namespace zu

#endif  // ZU_SUPPORT_LOG_H_
