#include "agent/KernelKnownAnswer.h"

#include <fcntl.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netlink/netlink.h>
#include <netlink/route/link/veth.h>
#include <netlink/socket.h>
#include <netpacket/packet.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

#include "agent/MacsecNetlink.h"
#include "model/KeyBytes.h"

namespace Macsec {

namespace {

// The test key, 00 01 02 ..., as long as the suite's keys.
constexpr uint8_t kTestKey[32] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15,
                                  16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31};
// The MACsec link's lower end ("kat0") and the wire's end ("kat1"), locally administered
// addresses; each end's SCI is its address and port 1.
constexpr uint8_t kLinkAddr[6] = {0x02, 0x6b, 0x61, 0x74, 0x00, 0x00};
constexpr uint8_t kWireAddr[6] = {0x02, 0x6b, 0x61, 0x74, 0x00, 0x01};
constexpr uint8_t kLinkSci[8] = {0x02, 0x6b, 0x61, 0x74, 0x00, 0x00, 0x00, 0x01};
constexpr uint8_t kWireSci[8] = {0x02, 0x6b, 0x61, 0x74, 0x00, 0x01, 0x00, 0x01};
// The IEEE 802 local experimental EtherType, and 32 octets of text.
constexpr uint8_t kEtherType[2] = {0x88, 0xb5};
constexpr char kText[] = "MKA known-answer test of MACsec.";
// The packet numbers the link starts from and the wire's frame carries.
constexpr uint32_t kLinkPn = 0x1000;
constexpr uint32_t kWirePn = 0x2000;
constexpr auto kPatience = std::chrono::seconds(5);

constexpr size_t kAddresses = 12;
constexpr size_t kSecTag = 16;
constexpr size_t kIcv = 16;

struct CtxDeleter {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};

// A MACsec frame as IEEE 802.1AE protects it with GCM-AES: `plain` is an Ethernet frame (the
// addresses, the EtherType and the data), protected with confidentiality from the first octet
// after the addresses, the SCI in the SecTAG, and the 16-octet ICV.
std::string macsecProtected(const std::string& plain, const uint8_t (&key)[32], int keyBits, const uint8_t (&sci)[8],
                            uint8_t an, uint32_t pn) {
  const EVP_CIPHER* cipher = keyBits == 256 ? EVP_aes_256_gcm() : keyBits == 128 ? EVP_aes_128_gcm() : nullptr;
  if (cipher == nullptr || plain.size() <= kAddresses || an > 3) return {};
  const size_t secure = plain.size() - kAddresses;
  // The SecTAG: the MACsec EtherType; version 0, the SCI included, encrypted and changed, and the
  // association number; the short length of secure data under 48 octets; the packet number; the SCI.
  uint8_t tag[kSecTag] = {0x88,
                          0xe5,
                          static_cast<uint8_t>(0x2c | an),
                          static_cast<uint8_t>(secure < 48 ? secure : 0),
                          static_cast<uint8_t>(pn >> 24),
                          static_cast<uint8_t>(pn >> 16),
                          static_cast<uint8_t>(pn >> 8),
                          static_cast<uint8_t>(pn)};
  std::memcpy(tag + 8, sci, 8);
  // The IV is the SCI and the packet number; the addresses and the SecTAG are authenticated only.
  uint8_t iv[12];
  std::memcpy(iv, sci, 8);
  std::memcpy(iv + 8, tag + 4, 4);
  std::string out = plain.substr(0, kAddresses);
  out.append(reinterpret_cast<const char*>(tag), kSecTag);
  out.resize(kAddresses + kSecTag + secure + kIcv);
  auto* o = reinterpret_cast<uint8_t*>(out.data());
  const auto* p = reinterpret_cast<const uint8_t*>(plain.data());
  std::unique_ptr<EVP_CIPHER_CTX, CtxDeleter> ctx(EVP_CIPHER_CTX_new());
  int n = 0;
  if (!ctx || EVP_EncryptInit_ex(ctx.get(), cipher, nullptr, key, iv) != 1 ||
      EVP_EncryptUpdate(ctx.get(), nullptr, &n, o, static_cast<int>(kAddresses + kSecTag)) != 1 ||
      EVP_EncryptUpdate(ctx.get(), o + kAddresses + kSecTag, &n, p + kAddresses, static_cast<int>(secure)) != 1 ||
      EVP_EncryptFinal_ex(ctx.get(), o + kAddresses + kSecTag + secure, &n) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kIcv, o + kAddresses + kSecTag + secure) != 1) {
    return {};
  }
  return out;
}

std::string frameOf(const uint8_t (&dst)[6], const uint8_t (&src)[6]) {
  std::string frame(reinterpret_cast<const char*>(dst), 6);
  frame.append(reinterpret_cast<const char*>(src), 6);
  frame.append(reinterpret_cast<const char*>(kEtherType), 2);
  frame.append(kText, sizeof kText - 1);
  return frame;
}

// What the child process tells its parent: nothing when the frame matched, else why not.
[[noreturn]] void report(int fd, const std::string& failure) {
  if (!failure.empty()) {
    [[maybe_unused]] const ssize_t n = write(fd, failure.data(), failure.size());
  }
  _exit(failure.empty() ? 0 : 1);
}

std::string systemError(const std::string& what) { return what + ": " + std::strerror(errno); }

// Sets an interface's address and brings it up, through the ioctls every kernel has.
std::string bringUp(const char* name, const uint8_t (&addr)[6]) {
  const int fd = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return systemError("socket");
  ifreq request{};
  std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
  request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
  std::memcpy(request.ifr_hwaddr.sa_data, addr, 6);
  std::string failure;
  if (ioctl(fd, SIOCSIFHWADDR, &request) != 0) failure = systemError(std::string("address of ") + name);
  if (failure.empty() && ioctl(fd, SIOCGIFFLAGS, &request) != 0) failure = systemError(std::string("flags of ") + name);
  request.ifr_flags |= IFF_UP;
  if (failure.empty() && ioctl(fd, SIOCSIFFLAGS, &request) != 0) failure = systemError(std::string("up ") + name);
  close(fd);
  return failure;
}

int packetSocket(int ifindex) {
  const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL));
  if (fd < 0) return -1;
  sockaddr_ll where{};
  where.sll_family = AF_PACKET;
  where.sll_protocol = htons(ETH_P_ALL);
  where.sll_ifindex = ifindex;
  if (bind(fd, reinterpret_cast<sockaddr*>(&where), sizeof where) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// In the child, in a network namespace of its own: the veth pair, the MACsec link on kat0 with
// its transmit SA and the receive SA of the wire's SCI, then one frame in and the wait for what
// comes out on the other side.
[[noreturn]] void runInNamespace(int keyBits, bool encrypt, const std::string& send, const std::string& expect,
                                 int resultFd) {
  if (unshare(CLONE_NEWNET) != 0) report(resultFd, systemError("no network namespace of its own"));
  // No address of its own on either end, so that nothing but the test's frame crosses the link.
  if (const int fd = open("/proc/sys/net/ipv6/conf/default/disable_ipv6", O_WRONLY | O_CLOEXEC); fd >= 0) {
    [[maybe_unused]] const ssize_t n = write(fd, "1", 1);
    close(fd);
  }
  nl_sock* route = nl_socket_alloc();
  if (route == nullptr || nl_connect(route, NETLINK_ROUTE) < 0) report(resultFd, "cannot open rtnetlink");
  if (const int error = rtnl_link_veth_add(route, "kat0", "kat1", getpid()); error < 0) {
    report(resultFd, std::string("veth pair: ") + nl_geterror(error));
  }
  for (const auto& [name, addr] : {std::pair{"kat0", &kLinkAddr}, std::pair{"kat1", &kWireAddr}}) {
    if (std::string failure = bringUp(name, *addr); !failure.empty()) report(resultFd, failure);
  }
  std::string error;
  const std::unique_ptr<MacsecNetlink> kernel = MacsecNetlink::open(error);
  if (!kernel) report(resultFd, error);
  MacsecLinkSettings settings;
  settings.name = "katsec";
  settings.lowerIfindex = static_cast<int>(if_nametoindex("kat0"));
  std::memcpy(settings.sci.octets, kLinkSci, 8);
  settings.cipherSuite = keyBits == 256 ? 0x0080C20001000002 : 0x0080C20001000001;
  if (auto failure = kernel->linkAdd(settings)) report(resultFd, *failure);
  const int link = kernel->linkIndex("katsec");
  const KeyBytes key(kTestKey, static_cast<size_t>(keyBits / 8));
  MacsecSaSettings tx;
  tx.lowestPn = kLinkPn;
  tx.key = &key;
  MacsecSaSettings rx;
  rx.key = &key;
  KernelSci wire;
  std::memcpy(wire.octets, kWireSci, 8);
  for (auto failure :
       {kernel->txSaAdd(link, tx), kernel->rxScAdd(link, wire), kernel->rxSaAdd(link, wire, rx),
        kernel->linkUpdate(
            link, MacsecLinkState{.up = true, .protect = true, .validate = true, .encrypt = true, .encodingSa = 0})}) {
    if (failure) report(resultFd, *failure);
  }

  const int from = packetSocket(encrypt ? link : static_cast<int>(if_nametoindex("kat1")));
  const int to = packetSocket(encrypt ? static_cast<int>(if_nametoindex("kat1")) : link);
  if (from < 0 || to < 0) report(resultFd, systemError("packet socket"));
  if (::send(from, send.data(), send.size(), 0) != static_cast<ssize_t>(send.size())) {
    report(resultFd, systemError("send"));
  }
  const auto until = std::chrono::steady_clock::now() + kPatience;
  std::string seen;
  while (std::chrono::steady_clock::now() < until) {
    pollfd ready{to, POLLIN, 0};
    if (poll(&ready, 1, 100) <= 0) continue;
    char buffer[2048];
    sockaddr_ll source{};
    socklen_t length = sizeof source;
    const ssize_t n = recvfrom(to, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&source), &length);
    if (n <= 0 || source.sll_pkttype == PACKET_OUTGOING) continue;
    seen.assign(buffer, static_cast<size_t>(n));
    if (seen == expect) report(resultFd, "");
  }
  report(resultFd,
         seen.empty() ? "no frame came out of the link" : "the frame that came out differs from the known answer");
}

}  // namespace

KnownAnswer kernelKnownAnswer(int keyBits, bool encrypt) {
  const std::string what = std::to_string(keyBits) + "-bit " + (encrypt ? "encryption" : "decryption");
  // Both answers are computed here, before the child goes into its namespace.
  const std::string outgoing = frameOf(kWireAddr, kLinkAddr);
  const std::string incoming = frameOf(kLinkAddr, kWireAddr);
  const std::string send = encrypt ? outgoing : macsecProtected(incoming, kTestKey, keyBits, kWireSci, 0, kWirePn);
  const std::string expect = encrypt ? macsecProtected(outgoing, kTestKey, keyBits, kLinkSci, 0, kLinkPn) : incoming;
  if (send.empty() || expect.empty()) return {false, what + ": the known answer could not be computed"};
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return {false, what + ": " + systemError("pipe")};
  const pid_t child = fork();
  if (child < 0) {
    close(pipeFds[0]);
    close(pipeFds[1]);
    return {false, what + ": " + systemError("fork")};
  }
  if (child == 0) {
    close(pipeFds[0]);
    runInNamespace(keyBits, encrypt, send, expect, pipeFds[1]);
  }
  close(pipeFds[1]);
  std::string failure;
  bool answered = false;
  const auto until = std::chrono::steady_clock::now() + kPatience + std::chrono::seconds(2);
  while (!answered && std::chrono::steady_clock::now() < until) {
    pollfd ready{pipeFds[0], POLLIN, 0};
    if (poll(&ready, 1, 100) <= 0) continue;
    char buffer[512];
    const ssize_t n = read(pipeFds[0], buffer, sizeof buffer);
    if (n > 0) failure.append(buffer, static_cast<size_t>(n));
    answered = n <= 0;
  }
  close(pipeFds[0]);
  if (!answered) kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  const bool passed = answered && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (passed) return {true, what + ": passed"};
  return {false, what + ": " + (!answered ? "no answer within its time" : failure.empty() ? "failed" : failure)};
}

}  // namespace Macsec
