// The framing of port authentication, layer by layer: EAPOL frames, EAP packets and EAP-TLS
// fragments, each against bytes as they stand on the wire.

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "dot1x/Eap.h"
#include "dot1x/EapTls.h"
#include "dot1x/Eapol.h"
#include "model/KeyBytes.h"
#include "model/PaeAddress.h"

namespace Dot1x {
namespace {

std::string octets(std::string_view hex) {
  Macsec::KeyBytes bytes;
  EXPECT_TRUE(Macsec::hexToBytes(hex, bytes)) << hex;
  return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

std::string hexOf(std::string_view bytes) {
  return Macsec::bytesToHex(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()).stdString();
}

// Destination (the PAE group address), source, EtherType: the first 14 octets of every frame here.
constexpr std::string_view kEthernet =
    "0180c2000003"
    "020000000001"
    "888e";

TEST(EapolFrame, ReadsEveryFrameAPortMeetsAndRefusesTheMalformedByReason) {
  struct Row {
    const char* what;
    std::string hex;
    EapolRefusal refusal;
    EapolType type = EapolType::eapPacket;
    uint8_t version = 0;
    std::string body = "";
  };
  const std::string ethernet(kEthernet);
  const std::vector<Row> rows = {
      {"a version-1 EAPOL-Start", ethernet + "01010000", EapolRefusal::none, EapolType::start, 1},
      // Minimum-size Ethernet frames carry padding after the body; it is not part of it.
      {"an EAPOL-Logoff padded to 60 octets", ethernet + "02020000" + std::string(84, '0'), EapolRefusal::none,
       EapolType::logoff, 2},
      {"an EAP-Request/Identity", ethernet + "030000050101000501", EapolRefusal::none, EapolType::eapPacket, 3,
       "0101000501"},
      {"a later version, read as ours", ethernet + "040100020000", EapolRefusal::none, EapolType::start, 4, "0000"},
      {"an MKPDU's header", ethernet + "03050000", EapolRefusal::none, EapolType::mka, 3},
      {"a header cut short", ethernet + "030000", EapolRefusal::tooShort},
      {"another EtherType",
       "0180c2000003020000000001"
       "0800"
       "03000000",
       EapolRefusal::notEapol},
      {"version 0", ethernet + "00010000", EapolRefusal::badVersion},
      {"an undefined packet type", ethernet + "03090000", EapolRefusal::unknownType},
      {"a body longer than the frame", ethernet + "0300000601010005", EapolRefusal::badBodyLength},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const std::string frame = octets(row.hex);
    EapolFrame read;
    ASSERT_EQ(decodeEapol(frame, read), row.refusal) << eapolRefusalText(decodeEapol(frame, read));
    if (row.refusal != EapolRefusal::none) continue;
    EXPECT_EQ(read.destination.stringValue(), "01:80:c2:00:00:03");
    EXPECT_EQ(read.source.stringValue(), "02:00:00:00:00:01");
    EXPECT_EQ(read.type, row.type);
    EXPECT_EQ(read.version, row.version);
    EXPECT_EQ(hexOf(read.body), row.body);
  }
}

TEST(EapolFrame, WritesTheFrameItReads) {
  const std::string body = octets("0201000b01757365723a31");
  const EapolFrame frame{kPaeGroupAddress, Lanx::EthAddr::fromText("02:00:00:00:00:01"), kEapolVersion,
                         EapolType::eapPacket, body};
  const std::string bytes = encodeEapol(frame);
  EXPECT_EQ(hexOf(bytes), std::string(kEthernet) + "0300000b" + "0201000b01757365723a31");
  EapolFrame read;
  ASSERT_EQ(decodeEapol(bytes, read), EapolRefusal::none);
  EXPECT_EQ(read.body, body);
  // A body past what a length can say is not framed with a wrong one.
  const std::string huge(0x10000, 'x');
  EXPECT_TRUE(
      encodeEapol(EapolFrame{kPaeGroupAddress, Lanx::EthAddr(), kEapolVersion, EapolType::eapPacket, huge}).empty());
}

TEST(EapPacket, ReadsRequestsResponsesAndResultsAndRefusesTheMalformedByReason) {
  struct Row {
    const char* what;
    const char* hex;
    EapRefusal refusal;
    EapCode code = EapCode::request;
    uint8_t identifier = 0;
    uint8_t type = 0;
    const char* data = "";
  };
  const std::vector<Row> rows = {
      {"a Request/Identity", "0101000501", EapRefusal::none, EapCode::request, 1, 1},
      {"a Response/Identity", "0201000b01757365723a31", EapRefusal::none, EapCode::response, 1, 1, "757365723a31"},
      {"a Response/Nak asking for EAP-TLS", "0202000603 0d", EapRefusal::none, EapCode::response, 2, 3, "0d"},
      {"an EAP-TLS Start", "010300060d20", EapRefusal::none, EapCode::request, 3, 13, "20"},
      {"a Success", "03030004", EapRefusal::none, EapCode::success, 3},
      // Octets past the length are padding, as EAPOL frames of minimum size carry.
      {"a Failure with padding", "0404000400000000", EapRefusal::none, EapCode::failure, 4},
      {"an unknown method, kept for a Nak", "010500050f", EapRefusal::none, EapCode::request, 5, 15},
      {"three octets", "010100", EapRefusal::tooShort},
      {"a request with no type", "01010004", EapRefusal::tooShort},
      {"a length below the header's", "01010003ff", EapRefusal::badLength},
      {"a length past what arrived", "0101000901", EapRefusal::badLength},
      {"code 5", "0501000401", EapRefusal::unknownCode},
      {"code 0", "0001000401", EapRefusal::unknownCode},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::string hex = row.hex;
    std::erase(hex, ' ');
    const std::string bytes = octets(hex);
    EapPacket read;
    ASSERT_EQ(decodeEap(bytes, read), row.refusal) << eapRefusalText(decodeEap(bytes, read));
    if (row.refusal != EapRefusal::none) continue;
    EXPECT_EQ(read.code, row.code);
    EXPECT_EQ(read.identifier, row.identifier);
    if (read.hasType()) {
      EXPECT_EQ(static_cast<uint8_t>(read.type), row.type);
    }
    EXPECT_EQ(hexOf(read.data), row.data);
    // What is read is written back as it came, padding left out.
    EXPECT_EQ(encodeEap(read), bytes.substr(0, read.hasType() ? 5 + read.data.size() : 4));
  }
}

TEST(EapTlsFragment, ReadsTheFlagsAndLengthAndWritesThemBack) {
  struct Row {
    const char* what;
    const char* hex;
    EapTlsRefusal refusal;
    bool start = false;
    bool more = false;
    std::optional<uint32_t> length = std::nullopt;
    const char* data = "";
  };
  const std::vector<Row> rows = {
      {"a Start", "20", EapTlsRefusal::none, true},
      {"an acknowledgement", "00", EapTlsRefusal::none},
      {"a first fragment", "c000000008160301", EapTlsRefusal::none, false, true, 8, "160301"},
      {"a message in one piece", "00160303", EapTlsRefusal::none, false, false, std::nullopt, "160303"},
      {"nothing at all", "", EapTlsRefusal::tooShort},
      {"a length of three octets", "80000008", EapTlsRefusal::tooShort},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const std::string bytes = octets(row.hex);
    EapTlsFragment read;
    ASSERT_EQ(decodeEapTls(bytes, read), row.refusal);
    if (row.refusal != EapTlsRefusal::none) continue;
    EXPECT_EQ(read.start, row.start);
    EXPECT_EQ(read.more, row.more);
    EXPECT_EQ(read.messageLength, row.length);
    EXPECT_EQ(hexOf(read.data), row.data);
    EXPECT_EQ(encodeEapTls(read), bytes);
  }
}

// A message of several fragments crosses whole, however it is cut; and every way a peer can get
// the fragments wrong is refused, leaving the reassembly ready for the next message.
TEST(EapTlsFragment, MessagesCrossInFragmentsAndBrokenSequencesAreRefused) {
  std::string message;
  for (int i = 0; message.size() < 5000; ++i) message.push_back(static_cast<char>(i * 7));
  for (const size_t fragmentOctets : {size_t{1486}, size_t{1000}, size_t{5000}, size_t{6000}}) {
    SCOPED_TRACE(fragmentOctets);
    EapTlsFragmenter out(fragmentOctets);
    out.messageIs(message);
    EapTlsReassembly in;
    int fragments = 0;
    while (out.pending()) {
      const EapTlsFragment fragment = out.next();
      // Only the first of several fragments gives the length, and all but the last ask for more.
      EXPECT_EQ(fragment.messageLength.has_value(), fragments == 0 && fragmentOctets < message.size());
      EXPECT_EQ(fragment.more, out.pending());
      const std::string sent = encodeEapTls(fragment);
      EapTlsFragment read;
      ASSERT_EQ(decodeEapTls(sent, read), EapTlsRefusal::none);
      ASSERT_EQ(in.add(read), EapTlsRefusal::none);
      EXPECT_EQ(in.awaitingMore(), out.pending());
      ++fragments;
    }
    EXPECT_EQ(fragments, static_cast<int>((message.size() + fragmentOctets - 1) / fragmentOctets));
    EXPECT_TRUE(in.take() == message);
  }

  const std::string piece(100, 'p');
  struct Case {
    const char* what;
    std::vector<EapTlsFragment> fragments;
    EapTlsRefusal refusal;
  };
  const std::vector<Case> cases = {
      {"a length above what a port takes in",
       {{false, true, kEapTlsMaxMessageOctets + 1, piece}},
       EapTlsRefusal::tooLong},
      {"fragments past the length",
       {{false, true, 150, piece}, {false, false, std::nullopt, piece}},
       EapTlsRefusal::badLength},
      {"fragments short of the length",
       {{false, true, 300, piece}, {false, false, std::nullopt, piece}},
       EapTlsRefusal::badLength},
      {"a length that changes", {{false, true, 300, piece}, {false, true, 400, piece}}, EapTlsRefusal::badFragment},
      {"a start among fragments",
       {{false, true, 300, piece}, {true, false, std::nullopt, ""}},
       EapTlsRefusal::badFragment},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EapTlsReassembly in;
    EapTlsRefusal last = EapTlsRefusal::none;
    for (const EapTlsFragment& fragment : c.fragments) last = in.add(fragment);
    EXPECT_EQ(last, c.refusal) << eapTlsRefusalText(last);
    EXPECT_FALSE(in.awaitingMore());
    ASSERT_EQ(in.add({false, false, std::nullopt, piece}), EapTlsRefusal::none);
    EXPECT_EQ(in.take(), piece);
  }
}

}  // namespace
}  // namespace Dot1x
