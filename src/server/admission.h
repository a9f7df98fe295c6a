// The rule that decides which processes may talk to the server.
#ifndef ZU_SERVER_ADMISSION_H_
#define ZU_SERVER_ADMISSION_H_

#include "platform/ipc.h"

namespace zu::server {

// The vendor's designated requirement, in the platform's requirement language.
extern const char kAdmissionRequirement[];

// True when the process runs code that satisfies the requirement. Everything
// else, every error included, is false and leaves a line in the system log.
// Blocks while the program's file is read.
bool ClientIsAllowedToConnect(const platform::ProcessReference& process);

}  // namespace zu::server

#endif  // ZU_SERVER_ADMISSION_H_
