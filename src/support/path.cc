#include "support/path.h"

#include <algorithm>
#include <iterator>

namespace zu {

std::string WithoutLastComponent(std::string_view path) {
  std::string folder;
  std::unique_copy(path.begin(), path.end(), std::back_inserter(folder),
                   [](char a, char b) { return a == '/' && b == '/'; });
  if (folder.ends_with('/')) folder.pop_back();
  const size_t slash = folder.rfind('/');
  folder.resize(slash == folder.npos ? 0 : slash);
  // The root alone keeps a slash at its end.
  if (folder.empty() && path.starts_with('/')) folder = '/';
  return folder;
}

}  // namespace zu
