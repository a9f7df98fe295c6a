// What zusign's commands share.
#ifndef ZU_TOOLS_ZUSIGN_ZUSIGN_H_
#define ZU_TOOLS_ZUSIGN_ZUSIGN_H_

#include <string>
#include <string_view>
#include <vector>

#include "build_values.h"
#include "platform/linux/signing/macho/code_directory.h"
#include "support/file_descriptor.h"

namespace zu::sign {

enum ExitCode {
  kGood = 0,
  kBadFile = 1,  // Not validly signed; or not to be signed.
  kUsage = 2,
  kSystem = 3,
};

// The command line. Null: not given.
struct Arguments {
  const char* key = nullptr;
  const char* cert = nullptr;
  const char* chain = nullptr;
  const char* identifier = nullptr;
  const char* timestamp = nullptr;
  const char* team = nullptr;
  const char* entitlements = nullptr;
  std::vector<platform::CodeHash> hashes;
  bool ad_hoc = false;
  bool replace = false;

  const char* requirement = nullptr;
  const char* anchors = ZU_ANCHORS_DIRECTORY;
  bool all_architectures = false;
  bool no_resources = false;
  bool consider_expiration = false;
  bool check_revocation = false;

  const char* path = nullptr;
};

ExitCode Sign(const Arguments& arguments);
ExitCode Verify(const Arguments& arguments);
ExitCode Show(const Arguments& arguments);

// Says on standard error what went wrong, and gives `code`.
[[gnu::format(printf, 2, 3)]] ExitCode Fail(ExitCode code, const char* format,
                                            ...);

// What a file that cannot be trusted, or cannot be read, comes to.
ExitCode CodeFor(int32_t status);

FileDescriptor OpenFile(const char* path);

}  // namespace zu::sign

#endif  // ZU_TOOLS_ZUSIGN_ZUSIGN_H_
