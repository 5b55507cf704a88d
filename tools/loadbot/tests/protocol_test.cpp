// The load generator's own encoding of the protocol: exact bytes of the
// lobby requests, probe orders that any changed byte gives away, notices.

#include <gtest/gtest.h>

#include "protocol.h"

using namespace loadbot;

namespace {
Bytes words(std::initializer_list<std::uint32_t> values) {
    Bytes out;
    for (auto v : values) putU32(out, v);
    return out;
}
Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
Bytes text(const std::string& s) {
    Bytes out(s.begin(), s.end());
    out.push_back(0);
    return out;
}
}  // namespace

TEST(LobbyRequests, ExactBytes) {
    EXPECT_EQ(createRoomMessage("r", "data", 0x10AD), words({2, 1}) + text("r") + text("data") + words({0x10AD}));
    EXPECT_EQ(joinRoomMessage(77), words({3, 1, 77}));
    Bytes setup = playerSetupMessage(5, true, "bot1-5");
    EXPECT_EQ(setup, words({5, 1, 5, 1, 0, 0, 0, 0, 0}) + text("bot1-5") + words({0, 0}));
    EXPECT_EQ(setup.size(), 45u + 6u);
    EXPECT_EQ(playerSetupMessage(0, false, "")[12], 0);
    EXPECT_EQ(startGameMessage(), words({14, 1}));
    EXPECT_EQ(stepDoneMessage(9, 3), words({1, 9, 3}));
}

TEST(LobbyReplies, ParsedByTypeAndLength) {
    Bytes accepted = words({6, 1, 4, 1234});
    auto m = parseLobbyMessage(accepted.data(), accepted.size());
    EXPECT_EQ(m.kind, LobbyMessage::Kind::JoinAccepted);
    EXPECT_EQ(m.slot, 4u);
    EXPECT_EQ(m.roomId, 1234u);
    EXPECT_EQ(parseLobbyMessage(accepted.data(), 15).kind, LobbyMessage::Kind::Malformed);

    Bytes setup = playerSetupMessage(2, true, "x");
    m = parseLobbyMessage(setup.data(), setup.size());
    EXPECT_EQ(m.kind, LobbyMessage::Kind::PlayerSetup);
    EXPECT_EQ(m.slot, 2u);
    EXPECT_EQ(m.ready, 1u);

    Bytes start = words({14, 1});
    EXPECT_EQ(parseLobbyMessage(start.data(), start.size()).kind, LobbyMessage::Kind::StartGame);
    Bytes host = words({8, 1, 1});
    EXPECT_EQ(parseLobbyMessage(host.data(), host.size()).kind, LobbyMessage::Kind::HostStatus);
    Bytes status = words({1, 1}) + text("") + words({0, 0, 0, 1, 4});
    EXPECT_EQ(parseLobbyMessage(status.data(), status.size()).kind, LobbyMessage::Kind::Other);
    EXPECT_EQ(parseLobbyMessage(start.data(), 7).kind, LobbyMessage::Kind::Malformed);
}

TEST(Probe, IsAnOrdinaryFullFormOrderTheServerPassesOn) {
    Probe p{3, 6, 250, 0x0123456789ABCDEFull, 0};
    Bytes b = encodeProbe(p);
    std::string t = "r3s6t250";
    // 46 fixed bytes, 4 + 2 list words, the text.
    ASSERT_EQ(b.size(), 46u + 4u * 6u + t.size());
    EXPECT_EQ(readU32(b.data()), 1u);
    EXPECT_EQ(readU32(b.data() + 4), 250u);  // step
    EXPECT_EQ(readU32(b.data() + 12), 4u);   // n
    EXPECT_NE(readU32(b.data() + 16), 0xFFFFFFFFu) << "would be a step-done order";
    std::uint32_t orderType = readU32(b.data() + 32);
    EXPECT_NE(orderType, 901u);
    EXPECT_NE(orderType, 902u);
    EXPECT_EQ(readU32(b.data() + 36), 2u);  // m
    EXPECT_EQ(readU32(b.data() + 40), 0x89ABCDEFu);
    EXPECT_EQ(readU32(b.data() + 44), 0x01234567u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(b.data() + 69)), t);
    EXPECT_EQ(b.back(), 0);

    ProbeResult r = checkProbe(b.data(), b.size());
    ASSERT_EQ(r.check, ProbeCheck::Ok);
    EXPECT_EQ(r.probe.room, 3u);
    EXPECT_EQ(r.probe.slot, 6u);
    EXPECT_EQ(r.probe.step, 250u);
    EXPECT_EQ(r.probe.sendNs, 0x0123456789ABCDEFull);

    Bytes padded = encodeProbe(Probe{3, 6, 250, 42, 300});
    EXPECT_EQ(padded.size(), b.size() + 300);
    ProbeResult rp = checkProbe(padded.data(), padded.size());
    ASSERT_EQ(rp.check, ProbeCheck::Ok);
    EXPECT_EQ(rp.probe.padding, 300u);
}

TEST(Probe, AnyChangedMissingOrExtraByteIsCorrupt) {
    Bytes good = encodeProbe(Probe{12, 1, 77, 987654321, 5});
    for (std::size_t i = 0; i < good.size(); ++i) {
        for (std::uint8_t flip : {0x01, 0x80}) {
            Bytes bad = good;
            bad[i] ^= flip;
            EXPECT_EQ(checkProbe(bad.data(), bad.size()).check, ProbeCheck::Corrupt) << "byte " << i;
        }
    }
    for (std::size_t cut = 0; cut < good.size(); ++cut)
        EXPECT_EQ(checkProbe(good.data(), cut).check, ProbeCheck::Corrupt) << "length " << cut;
    Bytes longer = good;
    longer.push_back(0);
    EXPECT_EQ(checkProbe(longer.data(), longer.size()).check, ProbeCheck::Corrupt);
}

TEST(Notice, OnlyTwelveBytesStartingWithOne) {
    Bytes n = words({1, 40, 7});
    auto parsed = parseNotice(n.data(), n.size());
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->step, 40u);
    EXPECT_EQ(parsed->slot, 7u);
    Bytes wrongType = words({2, 40, 7});
    EXPECT_FALSE(parseNotice(wrongType.data(), wrongType.size()).has_value());
    Bytes longer = words({1, 40, 7, 0});
    EXPECT_FALSE(parseNotice(longer.data(), longer.size()).has_value());
    EXPECT_FALSE(parseNotice(n.data(), 11).has_value());
}

TEST(UpdateFiles, RequestBytesAndFileDataChecks) {
    EXPECT_EQ(fileRequestMessage("big.bin"), words({2, 1}) + text("big.bin"));
    Bytes content(1000, 0x5A);
    Bytes reply = words({3, 1}) + text("big.bin") + words({1000}) + content;
    EXPECT_EQ(parseFileData(reply.data(), reply.size(), "big.bin"), 1000u);
    // Another name, a missing byte, an extra byte, another type.
    EXPECT_FALSE(parseFileData(reply.data(), reply.size(), "big.bim").has_value());
    EXPECT_FALSE(parseFileData(reply.data(), reply.size(), "big.bi").has_value());
    EXPECT_FALSE(parseFileData(reply.data(), reply.size() - 1, "big.bin").has_value());
    Bytes longer = reply;
    longer.push_back(0);
    EXPECT_FALSE(parseFileData(longer.data(), longer.size(), "big.bin").has_value());
    Bytes wrongType = reply;
    wrongType[0] = 2;
    EXPECT_FALSE(parseFileData(wrongType.data(), wrongType.size(), "big.bin").has_value());
    EXPECT_FALSE(parseFileData(reply.data(), 12, "big.bin").has_value());
}
