#include "agent/MacsecNetlink.h"

#include <linux/if.h>
#include <linux/if_macsec.h>
#include <netlink/attr.h>
#include <netlink/cache.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <netlink/route/link/macsec.h>
#include <netlink/socket.h>
#include <openssl/crypto.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <functional>

namespace Macsec {

uint64_t counterOf(const MacsecCounters& counters, std::string_view name) {
  for (const MacsecCounter& counter : counters) {
    if (name == counter.name) return counter.value;
  }
  return 0;
}

uint64_t KernelSci::raw() const {
  // The kernel reads the attribute's eight octets as they are, in network order.
  uint64_t value = 0;
  std::memcpy(&value, octets, sizeof value);
  return value;
}

namespace {

std::string failure(const char* operation, int error) { return std::string(operation) + ": " + nl_geterror(error); }

// The kernel wants the packet number at exactly the suite's size: 32 bits, or 64 with XPN.
void putPn(nl_msg* msg, uint64_t pn, bool xpn) {
  if (xpn) {
    nla_put_u64(msg, MACSEC_SA_ATTR_PN, pn);
  } else {
    nla_put_u32(msg, MACSEC_SA_ATTR_PN, static_cast<uint32_t>(std::min<uint64_t>(pn, UINT32_MAX)));
  }
}

// A message callback that counts, and lets the message go on.
int countMessage(nl_msg*, void* count) {
  ++*static_cast<uint64_t*>(count);
  return NL_OK;
}

}  // namespace

std::unique_ptr<MacsecNetlink> MacsecNetlink::open(std::string& error) {
  nl_sock* route = nl_socket_alloc();
  nl_sock* genl = nl_socket_alloc();
  if (!route || !genl || nl_connect(route, NETLINK_ROUTE) < 0 || genl_connect(genl) < 0) {
    nl_socket_free(route);
    nl_socket_free(genl);
    error = "cannot open netlink";
    return nullptr;
  }
  // Resolving the family loads the macsec module if the kernel has one.
  const int family = genl_ctrl_resolve(genl, "macsec");
  if (family < 0) {
    nl_socket_free(route);
    nl_socket_free(genl);
    error = "this kernel has no MACsec: the macsec module could not be loaded";
    return nullptr;
  }
  return std::unique_ptr<MacsecNetlink>(new MacsecNetlink(route, genl, family));
}

MacsecNetlink::MacsecNetlink(nl_sock* route, nl_sock* genl, int family) : route_(route), genl_(genl), family_(family) {
  // Every exchange goes through the sockets' own callbacks, or copies of them.
  for (nl_sock* socket : {route_, genl_}) {
    nl_cb* cb = nl_socket_get_cb(socket);
    nl_cb_set(cb, NL_CB_MSG_OUT, NL_CB_CUSTOM, countMessage, &traffic_.sent);
    nl_cb_set(cb, NL_CB_MSG_IN, NL_CB_CUSTOM, countMessage, &traffic_.received);
    nl_cb_put(cb);
  }
}

MacsecNetlink::~MacsecNetlink() {
  nl_socket_free(genl_);
  nl_socket_free(route_);
}

int MacsecNetlink::linkIndex(const std::string& name) {
  rtnl_link* link = nullptr;
  if (rtnl_link_get_kernel(route_, 0, name.c_str(), &link) < 0) return 0;
  const int ifindex = rtnl_link_get_ifindex(link);
  rtnl_link_put(link);
  return ifindex;
}

std::optional<std::string> MacsecNetlink::linkAdd(const MacsecLinkSettings& settings) {
  rtnl_link* link = rtnl_link_macsec_alloc();
  if (link == nullptr) return std::string("add link: out of memory");
  rtnl_link_set_name(link, settings.name.c_str());
  rtnl_link_set_link(link, settings.lowerIfindex);
  rtnl_link_macsec_set_sci(link, settings.sci.raw());
  rtnl_link_macsec_set_cipher_suite(link, settings.cipherSuite);
  rtnl_link_macsec_set_icv_len(link, MACSEC_STD_ICV_LEN);
  rtnl_link_macsec_set_encrypt(link, 1);
  rtnl_link_macsec_set_protect(link, 1);
  rtnl_link_macsec_set_validation_type(link, MACSEC_VALIDATE_STRICT);
  rtnl_link_macsec_set_replay_protect(link, settings.replayProtection ? 1 : 0);
  if (settings.replayProtection) rtnl_link_macsec_set_window(link, settings.replayWindow);
  rtnl_link_macsec_set_send_sci(link, settings.includeSci ? 1 : 0);
  const int error = rtnl_link_add(route_, link, NLM_F_CREATE | NLM_F_EXCL);
  rtnl_link_put(link);
  if (error < 0 && error != -NLE_EXIST) return failure("add link", error);
  if (settings.mark.empty() || error == -NLE_EXIST) return std::nullopt;
  // The kernel takes an alias only for a link that exists.
  rtnl_link* orig = rtnl_link_alloc();
  rtnl_link* change = rtnl_link_alloc();
  rtnl_link_set_name(orig, settings.name.c_str());
  rtnl_link_set_ifindex(orig, linkIndex(settings.name));
  rtnl_link_set_ifalias(change, settings.mark.c_str());
  const int marked = rtnl_link_change(route_, orig, change, 0);
  rtnl_link_put(change);
  rtnl_link_put(orig);
  if (marked < 0) return failure("mark link", marked);
  return std::nullopt;
}

std::optional<std::string> MacsecNetlink::linkUpdate(int ifindex, const MacsecLinkState& state) {
  rtnl_link* orig = rtnl_link_alloc();
  rtnl_link* change = rtnl_link_macsec_alloc();
  rtnl_link_set_ifindex(orig, ifindex);
  rtnl_link_set_ifindex(change, ifindex);
  if (state.up) {
    rtnl_link_set_flags(change, IFF_UP);
  } else {
    rtnl_link_unset_flags(change, IFF_UP);
  }
  rtnl_link_macsec_set_protect(change, state.protect ? 1 : 0);
  rtnl_link_macsec_set_encrypt(change, state.encrypt ? 1 : 0);
  rtnl_link_macsec_set_validation_type(change, state.validate ? MACSEC_VALIDATE_STRICT : MACSEC_VALIDATE_DISABLED);
  if (state.encodingSa >= 0) rtnl_link_macsec_set_encoding_sa(change, static_cast<uint8_t>(state.encodingSa));
  const int error = rtnl_link_change(route_, orig, change, 0);
  rtnl_link_put(change);
  rtnl_link_put(orig);
  if (error < 0) return failure("update link", error);
  return std::nullopt;
}

std::optional<std::string> MacsecNetlink::linkDel(int ifindex) {
  rtnl_link* link = rtnl_link_alloc();
  rtnl_link_set_ifindex(link, ifindex);
  const int error = rtnl_link_delete(route_, link);
  rtnl_link_put(link);
  if (error < 0 && error != -NLE_NODEV && error != -NLE_OBJ_NOTFOUND) return failure("delete link", error);
  return std::nullopt;
}

nl_msg* MacsecNetlink::genlMessage(uint8_t command, int ifindex) {
  nl_msg* msg = nlmsg_alloc();
  if (msg == nullptr) return nullptr;
  genlmsg_put(msg, NL_AUTO_PORT, NL_AUTO_SEQ, family_, 0, 0, command, 0);
  nla_put_u32(msg, MACSEC_ATTR_IFINDEX, static_cast<uint32_t>(ifindex));
  return msg;
}

std::optional<std::string> MacsecNetlink::send(nl_msg* msg, const char* operation, bool existsIsSuccess) {
  if (msg == nullptr) return std::string(operation) + ": out of memory";
  int error = nl_send_auto(genl_, msg);
  // The message may hold a key: no copy of it stays in our memory.
  OPENSSL_cleanse(nlmsg_hdr(msg), nlmsg_hdr(msg)->nlmsg_len);
  nlmsg_free(msg);
  if (error >= 0) error = nl_wait_for_ack(genl_);
  if (error < 0 && !(existsIsSuccess && error == -NLE_EXIST)) return failure(operation, error);
  return std::nullopt;
}

std::optional<std::string> MacsecNetlink::rxScAdd(int ifindex, const KernelSci& sci) {
  nl_msg* msg = genlMessage(MACSEC_CMD_ADD_RXSC, ifindex);
  if (msg) {
    nlattr* rxsc = nla_nest_start(msg, MACSEC_ATTR_RXSC_CONFIG);
    nla_put_u64(msg, MACSEC_RXSC_ATTR_SCI, sci.raw());
    nla_put_u8(msg, MACSEC_RXSC_ATTR_ACTIVE, 1);
    nla_nest_end(msg, rxsc);
  }
  return send(msg, "add receive SC", true);
}

std::optional<std::string> MacsecNetlink::rxScDel(int ifindex, const KernelSci& sci) {
  nl_msg* msg = genlMessage(MACSEC_CMD_DEL_RXSC, ifindex);
  if (msg) {
    nlattr* rxsc = nla_nest_start(msg, MACSEC_ATTR_RXSC_CONFIG);
    nla_put_u64(msg, MACSEC_RXSC_ATTR_SCI, sci.raw());
    nla_nest_end(msg, rxsc);
  }
  return send(msg, "delete receive SC");
}

namespace {

void putSa(nl_msg* msg, const MacsecSaSettings& sa) {
  nlattr* config = nla_nest_start(msg, MACSEC_ATTR_SA_CONFIG);
  nla_put_u8(msg, MACSEC_SA_ATTR_AN, sa.an);
  nla_put_u8(msg, MACSEC_SA_ATTR_ACTIVE, 1);
  putPn(msg, sa.lowestPn, sa.xpn);
  nla_put(msg, MACSEC_SA_ATTR_KEYID, sizeof sa.keyId, sa.keyId);
  nla_put(msg, MACSEC_SA_ATTR_KEY, static_cast<int>(sa.key->size()), sa.key->data());
  if (sa.xpn) {
    nla_put_u32(msg, MACSEC_SA_ATTR_SSCI, htonl(sa.ssci));  // in network order, as the kernel reads it
    nla_put(msg, MACSEC_SA_ATTR_SALT, sizeof sa.salt, sa.salt);
  }
  nla_nest_end(msg, config);
}

}  // namespace

std::optional<std::string> MacsecNetlink::rxSaAdd(int ifindex, const KernelSci& sci, const MacsecSaSettings& sa) {
  nl_msg* msg = genlMessage(MACSEC_CMD_ADD_RXSA, ifindex);
  if (msg) {
    nlattr* rxsc = nla_nest_start(msg, MACSEC_ATTR_RXSC_CONFIG);
    nla_put_u64(msg, MACSEC_RXSC_ATTR_SCI, sci.raw());
    nla_nest_end(msg, rxsc);
    putSa(msg, sa);
  }
  return send(msg, "add receive SA");
}

std::optional<std::string> MacsecNetlink::switchOffOrDeleteSa(uint8_t command, int ifindex, const KernelSci* sci,
                                                              uint8_t an) {
  nl_msg* msg = genlMessage(command, ifindex);
  if (msg) {
    if (sci) {
      nlattr* rxsc = nla_nest_start(msg, MACSEC_ATTR_RXSC_CONFIG);
      nla_put_u64(msg, MACSEC_RXSC_ATTR_SCI, sci->raw());
      nla_nest_end(msg, rxsc);
    }
    nlattr* config = nla_nest_start(msg, MACSEC_ATTR_SA_CONFIG);
    nla_put_u8(msg, MACSEC_SA_ATTR_AN, an);
    if (command == MACSEC_CMD_UPD_RXSA || command == MACSEC_CMD_UPD_TXSA) {
      nla_put_u8(msg, MACSEC_SA_ATTR_ACTIVE, 0);
    }
    nla_nest_end(msg, config);
  }
  switch (command) {
    case MACSEC_CMD_UPD_RXSA:
      return send(msg, "update receive SA");
    case MACSEC_CMD_DEL_RXSA:
      return send(msg, "delete receive SA");
    case MACSEC_CMD_UPD_TXSA:
      return send(msg, "update transmit SA");
    default:
      return send(msg, "delete transmit SA");
  }
}

std::optional<std::string> MacsecNetlink::rxSaDel(int ifindex, const KernelSci& sci, uint8_t an) {
  if (auto error = switchOffOrDeleteSa(MACSEC_CMD_UPD_RXSA, ifindex, &sci, an)) return error;
  return switchOffOrDeleteSa(MACSEC_CMD_DEL_RXSA, ifindex, &sci, an);
}

std::optional<std::string> MacsecNetlink::txSaAdd(int ifindex, const MacsecSaSettings& sa) {
  nl_msg* msg = genlMessage(MACSEC_CMD_ADD_TXSA, ifindex);
  if (msg) putSa(msg, sa);
  return send(msg, "add transmit SA");
}

std::optional<std::string> MacsecNetlink::txSaDel(int ifindex, uint8_t an) {
  if (auto error = switchOffOrDeleteSa(MACSEC_CMD_UPD_TXSA, ifindex, nullptr, an)) return error;
  return switchOffOrDeleteSa(MACSEC_CMD_DEL_TXSA, ifindex, nullptr, an);
}

namespace {

// The dump's part for one link: its attributes, once the message names the link asked for.
struct LinkDump {
  int ifindex;
  std::function<void(nlattr** attrs)> use;
};

int onTxsc(nl_msg* msg, void* arg) {
  auto* dump = static_cast<LinkDump*>(arg);
  nlattr* attrs[MACSEC_ATTR_MAX + 1];
  if (genlmsg_parse(nlmsg_hdr(msg), 0, attrs, MACSEC_ATTR_MAX, nullptr) < 0) return NL_SKIP;
  if (!attrs[MACSEC_ATTR_IFINDEX] ||
      (dump->ifindex != 0 && static_cast<int>(nla_get_u32(attrs[MACSEC_ATTR_IFINDEX])) != dump->ifindex)) {
    return NL_SKIP;
  }
  dump->use(attrs);
  return NL_OK;
}

// Calls `use` with each SA of a list: its attributes, parsed.
template <class Use>
void forEachSa(nlattr* list, Use&& use) {
  if (!list) return;
  nlattr* entry;
  int remaining;
  nla_for_each_nested(entry, list, remaining) {
    nlattr* sa[MACSEC_SA_ATTR_MAX + 1];
    if (nla_parse_nested(sa, MACSEC_SA_ATTR_MAX, entry, nullptr) < 0 || !sa[MACSEC_SA_ATTR_AN]) continue;
    use(sa);
  }
}

// Calls `use` with each receive channel of a list that names its SCI: its attributes, parsed.
template <class Use>
void forEachRxSc(nlattr* list, Use&& use) {
  if (!list) return;
  nlattr* entry;
  int remaining;
  nla_for_each_nested(entry, list, remaining) {
    nlattr* rxsc[MACSEC_RXSC_ATTR_MAX + 1];
    if (nla_parse_nested(rxsc, MACSEC_RXSC_ATTR_MAX, entry, nullptr) < 0 || !rxsc[MACSEC_RXSC_ATTR_SCI]) continue;
    use(rxsc);
  }
}

MacsecSaView saView(nlattr** sa) {
  MacsecSaView view;
  view.an = nla_get_u8(sa[MACSEC_SA_ATTR_AN]);
  view.active = sa[MACSEC_SA_ATTR_ACTIVE] && nla_get_u8(sa[MACSEC_SA_ATTR_ACTIVE]) != 0;
  if (sa[MACSEC_SA_ATTR_KEYID] && nla_len(sa[MACSEC_SA_ATTR_KEYID]) == sizeof view.keyId) {
    std::memcpy(view.keyId, nla_data(sa[MACSEC_SA_ATTR_KEYID]), sizeof view.keyId);
  }
  return view;
}

// The counters of one nested set, by attribute type, named as `ip -s macsec show` names them.
struct CounterName {
  int type;
  const char* name;
};

constexpr CounterName kSecyCounters[] = {
    {MACSEC_SECY_STATS_ATTR_OUT_PKTS_UNTAGGED, "OutPktsUntagged"},
    {MACSEC_SECY_STATS_ATTR_IN_PKTS_UNTAGGED, "InPktsUntagged"},
    {MACSEC_SECY_STATS_ATTR_OUT_PKTS_TOO_LONG, "OutPktsTooLong"},
    {MACSEC_SECY_STATS_ATTR_IN_PKTS_NO_TAG, "InPktsNoTag"},
    {MACSEC_SECY_STATS_ATTR_IN_PKTS_BAD_TAG, "InPktsBadTag"},
    {MACSEC_SECY_STATS_ATTR_IN_PKTS_UNKNOWN_SCI, "InPktsUnknownSCI"},
    {MACSEC_SECY_STATS_ATTR_IN_PKTS_NO_SCI, "InPktsNoSCI"},
    {MACSEC_SECY_STATS_ATTR_IN_PKTS_OVERRUN, "InPktsOverrun"},
};
constexpr CounterName kTxScCounters[] = {
    {MACSEC_TXSC_STATS_ATTR_OUT_PKTS_PROTECTED, "OutPktsProtected"},
    {MACSEC_TXSC_STATS_ATTR_OUT_PKTS_ENCRYPTED, "OutPktsEncrypted"},
    {MACSEC_TXSC_STATS_ATTR_OUT_OCTETS_PROTECTED, "OutOctetsProtected"},
    {MACSEC_TXSC_STATS_ATTR_OUT_OCTETS_ENCRYPTED, "OutOctetsEncrypted"},
};
constexpr CounterName kRxScCounters[] = {
    {MACSEC_RXSC_STATS_ATTR_IN_OCTETS_VALIDATED, "InOctetsValidated"},
    {MACSEC_RXSC_STATS_ATTR_IN_OCTETS_DECRYPTED, "InOctetsDecrypted"},
    {MACSEC_RXSC_STATS_ATTR_IN_PKTS_UNCHECKED, "InPktsUnchecked"},
    {MACSEC_RXSC_STATS_ATTR_IN_PKTS_DELAYED, "InPktsDelayed"},
    {MACSEC_RXSC_STATS_ATTR_IN_PKTS_OK, "InPktsOK"},
    {MACSEC_RXSC_STATS_ATTR_IN_PKTS_INVALID, "InPktsInvalid"},
    {MACSEC_RXSC_STATS_ATTR_IN_PKTS_LATE, "InPktsLate"},
    {MACSEC_RXSC_STATS_ATTR_IN_PKTS_NOT_VALID, "InPktsNotValid"},
    {MACSEC_RXSC_STATS_ATTR_IN_PKTS_NOT_USING_SA, "InPktsNotUsingSA"},
    {MACSEC_RXSC_STATS_ATTR_IN_PKTS_UNUSED_SA, "InPktsUnusedSA"},
};
constexpr CounterName kTxSaCounters[] = {
    {MACSEC_SA_STATS_ATTR_OUT_PKTS_PROTECTED, "OutPktsProtected"},
    {MACSEC_SA_STATS_ATTR_OUT_PKTS_ENCRYPTED, "OutPktsEncrypted"},
};
constexpr CounterName kRxSaCounters[] = {
    {MACSEC_SA_STATS_ATTR_IN_PKTS_OK, "InPktsOK"},
    {MACSEC_SA_STATS_ATTR_IN_PKTS_INVALID, "InPktsInvalid"},
    {MACSEC_SA_STATS_ATTR_IN_PKTS_NOT_VALID, "InPktsNotValid"},
    {MACSEC_SA_STATS_ATTR_IN_PKTS_NOT_USING_SA, "InPktsNotUsingSA"},
    {MACSEC_SA_STATS_ATTR_IN_PKTS_UNUSED_SA, "InPktsUnusedSA"},
};

// Every counter the table names, in its order: those the kernel left out count 0. The kernel gives
// an SA's counters in 32 bits, the others in 64; attributes of another size are not read.
template <size_t N>
MacsecCounters countersOf(nlattr* nested, const CounterName (&names)[N]) {
  MacsecCounters counters;
  for (const CounterName& name : names) counters.push_back({name.name, 0});
  if (!nested) return counters;
  nlattr* entry;
  int remaining;
  nla_for_each_nested(entry, nested, remaining) {
    for (size_t i = 0; i < N; ++i) {
      if (nla_type(entry) != names[i].type) continue;
      if (nla_len(entry) == sizeof(uint64_t)) counters[i].value = nla_get_u64(entry);
      if (nla_len(entry) == sizeof(uint32_t)) counters[i].value = nla_get_u32(entry);
    }
  }
  return counters;
}

KernelSci sciOf(uint64_t raw) {
  KernelSci sci;
  std::memcpy(sci.octets, &raw, sizeof sci.octets);
  return sci;
}

}  // namespace

void MacsecNetlink::dumpLink(int ifindex, const std::function<void(nlattr** attrs)>& use) {
  // The kernel answers a dump with every MACsec link; the one asked for is picked out.
  nl_msg* msg = nlmsg_alloc();
  if (msg == nullptr) return;
  genlmsg_put(msg, NL_AUTO_PORT, NL_AUTO_SEQ, family_, 0, NLM_F_DUMP, MACSEC_CMD_GET_TXSC, 0);
  nla_put_u32(msg, MACSEC_ATTR_IFINDEX, static_cast<uint32_t>(ifindex));
  const int sent = nl_send_auto(genl_, msg);
  nlmsg_free(msg);
  if (sent < 0) return;
  LinkDump dump{ifindex, use};
  nl_cb* socketCb = nl_socket_get_cb(genl_);
  nl_cb* cb = nl_cb_clone(socketCb);
  nl_cb_put(socketCb);
  nl_cb_set(cb, NL_CB_VALID, NL_CB_CUSTOM, onTxsc, &dump);
  nl_recvmsgs(genl_, cb);
  nl_cb_put(cb);
}

std::optional<MacsecLinkView> MacsecNetlink::linkView(const std::string& name) {
  rtnl_link* link = nullptr;
  if (rtnl_link_get_kernel(route_, 0, name.c_str(), &link) < 0) return std::nullopt;
  const char* type = rtnl_link_get_type(link);
  if (type == nullptr || std::strcmp(type, "macsec") != 0) {
    rtnl_link_put(link);
    return std::nullopt;
  }
  MacsecLinkView view;
  view.ifindex = rtnl_link_get_ifindex(link);
  view.lowerIfindex = rtnl_link_get_link(link);
  const char* alias = rtnl_link_get_ifalias(link);
  view.mark = alias ? alias : "";
  rtnl_link_put(link);
  dumpLink(view.ifindex, [&](nlattr** attrs) {
    if (attrs[MACSEC_ATTR_SECY]) {
      nlattr* secy[MACSEC_SECY_ATTR_MAX + 1];
      if (nla_parse_nested(secy, MACSEC_SECY_ATTR_MAX, attrs[MACSEC_ATTR_SECY], nullptr) >= 0) {
        if (secy[MACSEC_SECY_ATTR_SCI]) view.sci = sciOf(nla_get_u64(secy[MACSEC_SECY_ATTR_SCI]));
        if (secy[MACSEC_SECY_ATTR_ENCODING_SA]) view.encodingSa = nla_get_u8(secy[MACSEC_SECY_ATTR_ENCODING_SA]);
      }
    }
    forEachSa(attrs[MACSEC_ATTR_TXSA_LIST], [&](nlattr** sa) { view.txSas.push_back(saView(sa)); });
    forEachRxSc(attrs[MACSEC_ATTR_RXSC_LIST], [&](nlattr** rxsc) {
      MacsecLinkView::RxSc channel{sciOf(nla_get_u64(rxsc[MACSEC_RXSC_ATTR_SCI])), {}};
      forEachSa(rxsc[MACSEC_RXSC_ATTR_SA_LIST], [&](nlattr** sa) { channel.sas.push_back(saView(sa)); });
      view.rxScs.push_back(channel);
    });
  });
  return view;
}

std::map<int, MacsecLinkCounters> MacsecNetlink::linkCounters() {
  std::map<int, MacsecLinkCounters> links;
  dumpLink(0, [&](nlattr** attrs) {
    MacsecLinkCounters& link = links[static_cast<int>(nla_get_u32(attrs[MACSEC_ATTR_IFINDEX]))];
    link.secy = countersOf(attrs[MACSEC_ATTR_SECY_STATS], kSecyCounters);
    link.txSc = countersOf(attrs[MACSEC_ATTR_TXSC_STATS], kTxScCounters);
    forEachSa(attrs[MACSEC_ATTR_TXSA_LIST], [&](nlattr** sa) {
      const uint8_t an = nla_get_u8(sa[MACSEC_SA_ATTR_AN]);
      link.txSas[an] = countersOf(sa[MACSEC_SA_ATTR_STATS], kTxSaCounters);
      // 32 bits, or 64 with XPN.
      if (nlattr* pn = sa[MACSEC_SA_ATTR_PN]) {
        if (nla_len(pn) == sizeof(uint32_t)) link.txNextPn[an] = nla_get_u32(pn);
        if (nla_len(pn) == sizeof(uint64_t)) link.txNextPn[an] = nla_get_u64(pn);
      }
    });
    forEachRxSc(attrs[MACSEC_ATTR_RXSC_LIST], [&](nlattr** rxsc) {
      MacsecLinkCounters::RxSc channel{
          sciOf(nla_get_u64(rxsc[MACSEC_RXSC_ATTR_SCI])), countersOf(rxsc[MACSEC_RXSC_ATTR_STATS], kRxScCounters), {}};
      forEachSa(rxsc[MACSEC_RXSC_ATTR_SA_LIST], [&](nlattr** sa) {
        channel.sas[nla_get_u8(sa[MACSEC_SA_ATTR_AN])] = countersOf(sa[MACSEC_SA_ATTR_STATS], kRxSaCounters);
      });
      link.rxScs.push_back(std::move(channel));
    });
  });
  return links;
}

std::vector<std::string> MacsecNetlink::markedLinks(const std::string& mark) {
  std::vector<std::string> names;
  nl_cache* cache = nullptr;
  if (rtnl_link_alloc_cache(route_, AF_UNSPEC, &cache) < 0) return names;
  for (nl_object* object = nl_cache_get_first(cache); object; object = nl_cache_get_next(object)) {
    auto* link = reinterpret_cast<rtnl_link*>(object);
    const char* type = rtnl_link_get_type(link);
    const char* alias = rtnl_link_get_ifalias(link);
    if (type && std::strcmp(type, "macsec") == 0 && alias && mark == alias) names.push_back(rtnl_link_get_name(link));
  }
  nl_cache_free(cache);
  return names;
}

}  // namespace Macsec
