#include "components/ui_arguments.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <optional>
#include <string>

#include "support/accounts.h"
#include "support/user_file.h"

namespace zu::components {
namespace {

constexpr char kUsers[] = "/Users";
constexpr char kDirectory[] = "/Library/Application Support/Zubrant";
constexpr char kFile[] = "uiArgs";

// A name that stays one when it becomes part of a path.
bool IsPathComponent(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find('/') == name.npos;
}

// Where all users' homes are. It belongs to none of them: a system that has
// none yet gets one that only its administrator can change.
FileDescriptor OpenUsers() {
  const bool made = ::mkdir(kUsers, 0700) == 0;
  FileDescriptor users(RetryOnInterrupt(
      [] { return ::open(kUsers, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (made && users.valid()) ::fchmod(users.get(), 0755);
  return users;
}

}  // namespace

void SaveUiArguments(uint32_t user, std::string_view arguments) {
  const std::optional<User> owner = FindUser(user);
  if (!owner || !IsPathComponent(owner->name)) return;
  const FileDescriptor users = OpenUsers();
  if (!users.valid()) return;
  // Open to everybody on purpose: who starts the interface, as whomever, uses
  // the file.
  FileAttributes attributes{.owner = owner->id, .mode = 0777};
  if (const auto staff = FindGroup("staff")) attributes.group = *staff;
  const auto directory =
      UserDirectory::Open(users.get(), owner->name + kDirectory, &attributes);
  if (!directory) return;
  directory->SetAttributes(attributes);
  std::string text(" ");
  text.append(arguments).append("\n");
  static_cast<void>(directory->ReplaceFile(kFile, text, attributes));
}

}  // namespace zu::components
