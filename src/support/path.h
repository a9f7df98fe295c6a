// Rules about paths as texts; nothing here looks at the file system.
#ifndef ZU_SUPPORT_PATH_H_
#define ZU_SUPPORT_PATH_H_

#include <string>
#include <string_view>

namespace zu {

// `path` without its last component, as the platform's strings do it: slashes
// that end it do not count, and of several in a row one counts and is kept.
// "/a/b" and "//a//b/" give "/a", "/a" and "/" give "/", "a" and "" give "".
std::string WithoutLastComponent(std::string_view path);

}  // namespace zu

#endif  // ZU_SUPPORT_PATH_H_
