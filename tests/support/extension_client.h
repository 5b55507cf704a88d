#pragma once
// A game client for tests that speaks the extensions: the handshake, the
// rejoin ticket and a rejoin on a new connection, snapshots, spectating, and
// the match's stream read back record by record. Real ENet over loopback, as
// TestClient; the messages are the server's own records, encoded and decoded
// with its codec, so that a layout is written down once.
//
// A client that is sent a stream reads it on the lobby channel and leaves
// the order and match control channels queued until the stream is over:
// what comes there is the live match, handled after the stream.

#include <cstdint>
#include <ostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/messages.h"
#include "protocol/recording.h"
#include "support/test_client.h"

// What brings a player back to its seat. The token is copied out of the
// message that brought it.
struct Ticket {
    std::uint32_t roomId = 0;
    std::uint32_t slot = 0;
    Bytes token;
};

// A match's stream as far as it came.
struct Stream {
    std::vector<Record> records;  // whole records, each with its CRC checked
    bool damaged = false;         // a record was cut short or failed its CRC
    bool caughtUp = false;        // CatchUpDone came: the rest is live
    std::optional<WatchEnded> ended;
    // A StateSnapshot passed on before the stream: its step and state.
    std::optional<std::uint32_t> snapshotStep;
    Bytes snapshot;
    // Lobby messages that came while the stream was read and are not part of
    // it, in order.
    std::vector<Bytes> others;

    // The records of one type, in order.
    std::vector<Record> ofType(RecordType type) const;
};

// An order record's fields: the step, the sender's slot and the order's
// bytes as relayed.
struct RecordedOrder {
    std::uint32_t step = 0;
    std::uint32_t slot = 0;
    Bytes bytes;
    bool operator==(const RecordedOrder&) const = default;
};
std::optional<RecordedOrder> recordedOrder(const Record& record);
// For test failures: the step, the slot and the bytes in hex.
void PrintTo(const RecordedOrder& order, std::ostream* out);
// Whole records framed as in a recording file; nullopt when one is cut
// short or fails its CRC.
std::optional<std::vector<Record>> parseRecords(ByteView bytes);

class ExtensionClient : public TestClient {
public:
    using TestClient::TestClient;

    // Sends ExtensionsHello; the features granted, nullopt when no answer
    // comes.
    std::optional<std::vector<std::string>> hello(const std::vector<std::string>& features);

    // The RejoinTicket that follows the go notice, kept for rejoin().
    bool awaitTicket(int timeoutMs = 3000);
    const Ticket& ticket() const { return ticket_; }

    // Presents a ticket on this connection. The answer: RejoinAccepted (its
    // new token then becomes this client's ticket) or JoinRefused; nullopt
    // when none comes.
    std::optional<Bytes> rejoin(const Ticket& ticket);
    // Asks to watch a room's match: SpectateAccepted or JoinRefused.
    std::optional<Bytes> spectate(std::uint32_t roomId, std::string_view password = "");

    // Reads the stream on the lobby channel until it is over (CatchUpDone or
    // WatchEnded), until `enough` holds, or until nothing comes for
    // timeoutMs; false on the time-out. Channels 2 and 3 stay queued.
    bool readStream(int timeoutMs = 10000, const std::function<bool(const Stream&)>& enough = {});
    const Stream& stream() const { return stream_; }

    // Answers the next StateRequest with a snapshot of step; the request,
    // nullopt when none comes.
    std::optional<StateRequest> answerStateRequest(std::uint32_t step, ByteView state, int timeoutMs = 3000);

    // The game has run through the stream: steps may wait for it again.
    void caughtUp() { send(kLobbyChannel, encode(CaughtUp{})); }

private:
    // The next lobby message of one of the types, the others dropped.
    std::optional<Bytes> awaitLobby(std::initializer_list<std::uint32_t> types, int timeoutMs);

    Ticket ticket_;
    Stream stream_;
};
