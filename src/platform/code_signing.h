// Code objects and the rules that signed code can be held to.
//
// Results are the platform's own status numbers on every system: 0 is good.
// All functions may be called from any thread; the checks read files and may
// block for as long as that takes.
#ifndef ZU_PLATFORM_CODE_SIGNING_H_
#define ZU_PLATFORM_CODE_SIGNING_H_

#include <cstdint>
#include <memory>

#include "platform/ipc.h"

namespace zu::platform {

struct Requirement;
struct Code;

using RequirementRef = std::shared_ptr<const Requirement>;
using CodeRef = std::shared_ptr<const Code>;

enum class CodeKind { kStatic, kDynamic, kOther };

// Flags of the checks.
inline constexpr uint32_t kDefaultFlags = 0;
inline constexpr uint32_t kDoNotValidateResources = 1u << 2;
inline constexpr uint32_t kCheckNestedCode = 1u << 3;

// Status numbers that callers tell apart.
inline constexpr int32_t kCodeSigningSuccess = 0;
inline constexpr int32_t kCodeSigningUnsigned = -67062;
inline constexpr int32_t kCodeSigningSignatureFailed = -67061;
inline constexpr int32_t kCodeSigningNotVerifiable = -67060;
inline constexpr int32_t kCodeSigningRequirementFailed = -67050;
inline constexpr int32_t kCodeSigningNoSuchCode = -67065;

// Compiles requirement text; null when it does not follow the language.
RequirementRef CompileRequirement(const char* text);

// The code of a running process; null when there is no such process. Uses the
// reference's descriptor, if it has one, only during this call.
CodeRef CopyCodeOfProcess(const ProcessReference& process);

CodeKind KindOf(const Code& code);

// Checks code at rest, or the code that a process runs, against `requirement`
// as well when that is not null.
int32_t CheckStaticCodeValidity(const Code& code, uint32_t flags,
                                const Requirement* requirement);
int32_t CheckCodeValidity(const Code& code, uint32_t flags,
                          const Requirement* requirement);

}  // namespace zu::platform

#endif  // ZU_PLATFORM_CODE_SIGNING_H_
