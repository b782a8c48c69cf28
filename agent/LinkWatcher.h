#pragma once

// The kernel's network interfaces as rtnetlink reports them: a dump at the start, then every
// change as it happens. Each report says what one interface is now (name, index, Ethernet address,
// whether it is up with a carrier); a rename reports the old name gone.

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "platform/EthAddr.h"

struct nl_sock;
struct nl_msg;
struct nl_object;

namespace Macsec {

struct LinkState {
  std::string name;
  int ifindex = 0;
  Lanx::EthAddr addr;
  // The interface is administratively up and the kernel reports its carrier.
  bool up = false;
};

class LinkWatcher {
 public:
  using Changed = std::function<void(const LinkState& link)>;
  using Gone = std::function<void(const std::string& name)>;
  using Known = std::function<void()>;

  // Ends the process with a message if rtnetlink cannot be opened. `known` runs once the first
  // dump has reported every interface there is.
  LinkWatcher(Changed changed, Gone gone, Known known);
  ~LinkWatcher();
  LinkWatcher(const LinkWatcher&) = delete;
  LinkWatcher& operator=(const LinkWatcher&) = delete;

  // The socket to watch for reading, and what to do when it is readable.
  int fd() const;
  void readable();

 private:
  static int onMessage(nl_msg* msg, void* self);
  static int onDumpDone(nl_msg* msg, void* self);
  static void onObject(nl_object* object, void* self);
  void linkIs(const LinkState& link);
  void linkDel(int ifindex);

  nl_sock* socket_ = nullptr;
  Changed changed_;
  Gone gone_;
  Known known_;
  std::map<int, std::string> names_;  // by interface index, to see renames
};

}  // namespace Macsec
