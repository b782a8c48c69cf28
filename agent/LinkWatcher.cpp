#include "agent/LinkWatcher.h"

#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <netlink/route/rtnl.h>
#include <netlink/socket.h>

#include <string>

#include "platform/Fatal.h"

namespace Macsec {

namespace {

[[noreturn]] void netlinkFailed(const char* what, int error) {
  Zef::fatal(std::string("mkad: rtnetlink: ") + what + ": " + nl_geterror(error));
}

}  // namespace

LinkWatcher::LinkWatcher(Changed changed, Gone gone, Known known)
    : changed_(std::move(changed)), gone_(std::move(gone)), known_(std::move(known)) {
  socket_ = nl_socket_alloc();
  if (socket_ == nullptr) Zef::fatal("mkad: rtnetlink: out of memory");
  // Notifications carry no sequence number of ours.
  nl_socket_disable_seq_check(socket_);
  nl_socket_modify_cb(socket_, NL_CB_VALID, NL_CB_CUSTOM, &LinkWatcher::onMessage, this);
  nl_socket_modify_cb(socket_, NL_CB_FINISH, NL_CB_CUSTOM, &LinkWatcher::onDumpDone, this);
  if (int error = nl_connect(socket_, NETLINK_ROUTE); error < 0) netlinkFailed("connect", error);
  if (int error = nl_socket_add_membership(socket_, RTNLGRP_LINK); error < 0) netlinkFailed("join", error);
  nl_socket_set_nonblocking(socket_);
  // A large buffer, so that a burst of changes on a big switch does not overflow it.
  nl_socket_set_buffer_size(socket_, 1 << 20, 0);
  if (int error = nl_rtgen_request(socket_, RTM_GETLINK, AF_UNSPEC, NLM_F_DUMP); error < 0) {
    netlinkFailed("dump", error);
  }
}

LinkWatcher::~LinkWatcher() { nl_socket_free(socket_); }

int LinkWatcher::fd() const { return nl_socket_get_fd(socket_); }

void LinkWatcher::readable() {
  // Reads what is waiting; a malformed message is skipped by the parser, not trusted.
  while (true) {
    const int error = nl_recvmsgs_default(socket_);
    if (error >= 0) continue;
    if (error == -NLE_AGAIN) return;
    if (error == -NLE_NOMEM || error == -NLE_MSG_OVERFLOW) {
      // Changes were lost: ask for the whole picture again.
      nl_rtgen_request(socket_, RTM_GETLINK, AF_UNSPEC, NLM_F_DUMP);
      continue;
    }
    return;
  }
}

int LinkWatcher::onMessage(nl_msg* msg, void* self) {
  nl_msg_parse(msg, &LinkWatcher::onObject, self);
  return NL_OK;
}

int LinkWatcher::onDumpDone(nl_msg*, void* self) {
  auto* watcher = static_cast<LinkWatcher*>(self);
  if (Known known = std::move(watcher->known_)) known();
  return NL_STOP;
}

void LinkWatcher::onObject(nl_object* object, void* self) {
  auto* watcher = static_cast<LinkWatcher*>(self);
  auto* link = reinterpret_cast<rtnl_link*>(object);
  const int ifindex = rtnl_link_get_ifindex(link);
  if (nl_object_get_msgtype(object) == RTM_DELLINK) {
    watcher->linkDel(ifindex);
    return;
  }
  LinkState state;
  state.ifindex = ifindex;
  if (const char* name = rtnl_link_get_name(link)) state.name = name;
  if (state.name.empty()) return;
  const unsigned flags = rtnl_link_get_flags(link);
  state.up = (flags & IFF_UP) != 0 && (flags & IFF_LOWER_UP) != 0;
  if (nl_addr* addr = rtnl_link_get_addr(link); addr && nl_addr_get_len(addr) == 6) {
    const auto* bytes = static_cast<const uint8_t*>(nl_addr_get_binary_addr(addr));
    state.addr = Lanx::EthAddr({bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5]});
  }
  watcher->linkIs(state);
}

void LinkWatcher::linkIs(const LinkState& link) {
  if (auto it = names_.find(link.ifindex); it != names_.end() && it->second != link.name) {
    const std::string old = it->second;
    names_.erase(it);
    gone_(old);
  }
  names_[link.ifindex] = link.name;
  changed_(link);
}

void LinkWatcher::linkDel(int ifindex) {
  const auto it = names_.find(ifindex);
  if (it == names_.end()) return;
  const std::string name = it->second;
  names_.erase(it);
  gone_(name);
}

}  // namespace Macsec
