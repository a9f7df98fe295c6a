#include "platform/process_owner.h"

#include <libproc.h>

namespace zu::platform {

std::optional<uint32_t> ReadProcessOwner(int32_t pid) {
  proc_bsdshortinfo information{};
  static_assert(sizeof information == 64);
  if (::proc_pidinfo(pid, PROC_PIDT_SHORTBSDINFO, 0, &information,
                     sizeof information) < 1) {
    return std::nullopt;
  }
  return information.pbsi_uid;
}

}  // namespace zu::platform
