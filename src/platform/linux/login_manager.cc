#include "platform/linux/login_manager.h"

#include <dlfcn.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-login.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <type_traits>
#include <utility>

#include "support/accounts.h"
#include "support/allocated.h"

namespace zu::platform {
namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

// Never from the environment, which is whoever's that started the host.
constexpr char kBus[] = "unix:path=/run/dbus/system_bus_socket";
constexpr std::chrono::seconds kPatience{2};

// What we use of the client library.
struct LoginLibrary {
  decltype(&::sd_get_sessions) get_sessions;
  decltype(&::sd_seat_get_active) seat_get_active;
  decltype(&::sd_session_get_class) session_get_class;
  decltype(&::sd_session_get_state) session_get_state;
  decltype(&::sd_session_get_tty) session_get_tty;
  decltype(&::sd_session_get_type) session_get_type;
  decltype(&::sd_session_get_uid) session_get_uid;
  decltype(&::sd_bus_call_method_async) bus_call_method_async;
  decltype(&::sd_bus_close_unref) bus_close_unref;
  decltype(&::sd_bus_message_read) bus_message_read;
  decltype(&::sd_bus_new) bus_new;
  decltype(&::sd_bus_process) bus_process;
  decltype(&::sd_bus_set_address) bus_set_address;
  decltype(&::sd_bus_set_bus_client) bus_set_bus_client;
  decltype(&::sd_bus_start) bus_start;
  decltype(&::sd_bus_wait) bus_wait;
};

std::optional<LoginLibrary> LoadLoginLibrary() {
  void* const file = ::dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
  if (file == nullptr) return std::nullopt;
  LoginLibrary library;
  bool complete = true;
  const auto find = [&](auto& function, const char* name) {
    function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(
        ::dlsym(file, name));
    complete = complete && function != nullptr;
  };
  find(library.get_sessions, "sd_get_sessions");
  find(library.seat_get_active, "sd_seat_get_active");
  find(library.session_get_class, "sd_session_get_class");
  find(library.session_get_state, "sd_session_get_state");
  find(library.session_get_tty, "sd_session_get_tty");
  find(library.session_get_type, "sd_session_get_type");
  find(library.session_get_uid, "sd_session_get_uid");
  find(library.bus_call_method_async, "sd_bus_call_method_async");
  find(library.bus_close_unref, "sd_bus_close_unref");
  find(library.bus_message_read, "sd_bus_message_read");
  find(library.bus_new, "sd_bus_new");
  find(library.bus_process, "sd_bus_process");
  find(library.bus_set_address, "sd_bus_set_address");
  find(library.bus_set_bus_client, "sd_bus_set_bus_client");
  find(library.bus_start, "sd_bus_start");
  find(library.bus_wait, "sd_bus_wait");
  if (!complete) return std::nullopt;
  return library;
}

const std::optional<LoginLibrary>& Library() {
  static const std::optional<LoginLibrary> library = LoadLoginLibrary();
  return library;
}

// -------------------------------------------------------------- sessions --

using TextGetter = decltype(LoginLibrary::session_get_tty);

// Empty when the session has none.
std::string GetText(TextGetter get, const char* session) {
  char* text = nullptr;
  if (get(session, &text) < 0) return {};
  return Allocated<char>(text).get();
}

bool IsOfUser(const LoginLibrary& library, const char* session) {
  const std::string kind = GetText(library.session_get_class, session);
  return (kind.empty() || kind.starts_with("user")) &&
         GetText(library.session_get_state, session) != "closing";
}

// What `get` makes of each session of a user, where that is not empty.
template <typename Getter>
std::vector<std::string> AskSessions(Getter get) {
  std::vector<std::string> answers;
  const std::optional<LoginLibrary>& library = Library();
  char** names = nullptr;
  if (!library || library->get_sessions(&names) < 0) return answers;
  const Allocated<char*> owner(names);
  for (; names != nullptr && *names != nullptr; ++names) {
    const Allocated<char> name(*names);
    if (!IsOfUser(*library, name.get())) continue;
    std::string answer = get(*library, name.get());
    if (!answer.empty()) answers.push_back(std::move(answer));
  }
  return answers;
}

std::string NameOf(uid_t id) {
  const std::optional<User> user = FindUser(id);
  return user ? user->name : std::string();
}

// ------------------------------------------------------------------- bus --

struct CloseBus {
  void operator()(sd_bus* bus) const { Library()->bus_close_unref(bus); }
};

// One of the login manager's properties, and where its value goes.
struct Property {
  const char* name;
  const char* type;
  void* value;
  bool answered = false;
  bool read = false;
};

int TakeProperty(sd_bus_message* reply, void* context, sd_bus_error*) {
  auto& property = *static_cast<Property*>(context);
  property.answered = true;
  // An error's text is no variant, either.
  property.read = Library()->bus_message_read(reply, "v", property.type,
                                              property.value) > 0;
  return 0;
}

bool Ask(const LoginLibrary& library, sd_bus* bus, Property& property) {
  return library.bus_call_method_async(
             bus, nullptr, "org.freedesktop.login1", "/org/freedesktop/login1",
             "org.freedesktop.DBus.Properties", "Get", &TakeProperty, &property,
             "ss", "org.freedesktop.login1.Manager", property.name) >= 0;
}

// Turns the connection until `condition` holds; false when it fails or the
// deadline passes first. The library's own limits do not serve: the one of
// logging in to the bus is fixed, at more than a minute.
template <typename Condition>
bool TurnUntil(const LoginLibrary& library, sd_bus* bus, Condition condition) {
  const auto deadline = steady_clock::now() + kPatience;
  while (!condition()) {
    const auto left = std::chrono::duration_cast<microseconds>(
        deadline - steady_clock::now());
    if (left.count() <= 0) return false;
    const int events = library.bus_process(bus, nullptr);
    if (events < 0) return false;
    if (events > 0) continue;
    const int waited =
        library.bus_wait(bus, static_cast<uint64_t>(left.count()));
    if (waited < 0 && waited != -EINTR) return false;
  }
  return true;
}

}  // namespace

std::vector<std::string> SessionUsers() {
  return AskSessions([](const LoginLibrary& library, const char* session) {
    uid_t user = 0;
    return library.session_get_uid(session, &user) < 0 ? std::string()
                                                       : NameOf(user);
  });
}

std::vector<std::string> SessionTerminals() {
  return AskSessions([](const LoginLibrary& library, const char* session) {
    return GetText(library.session_get_tty, session);
  });
}

bool HasGraphicalSession() {
  const std::vector<std::string> types =
      AskSessions([](const LoginLibrary& library, const char* session) {
        return GetText(library.session_get_type, session);
      });
  return std::any_of(types.begin(), types.end(), [](const std::string& type) {
    return type == "x11" || type == "wayland" || type == "mir";
  });
}

std::string ActiveSessionUser() {
  const std::optional<LoginLibrary>& library = Library();
  char* name = nullptr;
  uid_t user = 0;
  if (!library || library->seat_get_active("seat0", &name, &user) < 0) {
    return {};
  }
  const Allocated<char> session(name);
  if (name == nullptr || !IsOfUser(*library, name)) return {};
  return NameOf(user);
}

std::optional<IdleHint> ReadIdleHint() {
  int idle = 0;
  uint64_t since_us = 0;
  // When the hint changes in between, the time is that of the change.
  Property properties[] = {{"IdleHint", "b", &idle},
                           {"IdleSinceHintMonotonic", "t", &since_us}};
  const std::optional<LoginLibrary>& library = Library();
  sd_bus* made = nullptr;
  if (!library || library->bus_new(&made) < 0) return std::nullopt;
  const std::unique_ptr<sd_bus, CloseBus> bus(made);
  const bool answered =
      library->bus_set_address(made, kBus) >= 0 &&
      library->bus_set_bus_client(made, 1) >= 0 &&
      library->bus_start(made) >= 0 && Ask(*library, made, properties[0]) &&
      Ask(*library, made, properties[1]) && TurnUntil(*library, made, [&] {
        return properties[0].answered && properties[1].answered;
      });
  if (!answered || !properties[0].read || !properties[1].read) {
    return std::nullopt;
  }
  return IdleHint{
      .idle = idle != 0,
      .since_us = static_cast<int64_t>(std::min<uint64_t>(
          since_us, uint64_t{INT64_MAX} / 1000))};  // Also in nanoseconds.
}

}  // namespace zu::platform
