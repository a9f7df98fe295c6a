#include "support/log.h"

#include <syslog.h>
#include <cstdarg>

namespace zu {

void LogError(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  ::vsyslog(LOG_ERR, format, arguments);
  va_end(arguments);
}

}  // namespace zu
