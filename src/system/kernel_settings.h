// The kernel setting that the library puts back when it is unloaded.
#ifndef ZU_SYSTEM_KERNEL_SETTINGS_H_
#define ZU_SYSTEM_KERNEL_SETTINGS_H_

namespace zu::system {

// For the load hook: keeps the value of "vm.shared_region_unnest_logging".
void KeepUnnestLogging();

// Tells that this process has changed the value for its host. Any thread.
void NoteUnnestLoggingChange();

// For the unload hook: writes the kept value back, if this very process has
// changed it.
void RestoreUnnestLogging();

}  // namespace zu::system

#endif  // ZU_SYSTEM_KERNEL_SETTINGS_H_
