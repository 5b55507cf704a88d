#include "support/extension_client.h"

namespace {

std::uint32_t typeOf(const Bytes& message) { return message.size() >= 4 ? loadU32(message.data()) : 0; }

}  // namespace

std::vector<Record> Stream::ofType(RecordType type) const {
    std::vector<Record> out;
    for (const Record& r : records)
        if (r.type == type) out.push_back(r);
    return out;
}

std::optional<RecordedOrder> recordedOrder(const Record& record) {
    if (record.type != RecordType::order || record.payload.size() < 8) return std::nullopt;
    return RecordedOrder{loadU32(record.payload.data()), loadU32(record.payload.data() + 4),
                         Bytes(record.payload.begin() + 8, record.payload.end())};
}

void PrintTo(const RecordedOrder& order, std::ostream* out) {
    static const char digits[] = "0123456789abcdef";
    *out << "{step " << order.step << ", slot " << order.slot << ", ";
    for (std::uint8_t b : order.bytes) *out << digits[b >> 4] << digits[b & 15];
    *out << "}";
}

std::optional<std::vector<Record>> parseRecords(ByteView bytes) {
    std::vector<Record> records;
    Reader r(bytes);
    while (r.ok() && r.remaining() > 0) {
        const std::size_t start = r.offset();
        const std::uint32_t length = r.u32();
        Record record;
        record.type = static_cast<RecordType>(r.u8());
        record.millis = r.u32();
        const ByteView payload = r.bytes(length);
        const std::uint32_t crc = r.u32();
        if (!r.ok()) return std::nullopt;
        // The CRC covers the type, the milliseconds and the payload.
        if (crc != crc32(bytes.subspan(start + 4, 5 + length))) return std::nullopt;
        record.payload.assign(payload.begin(), payload.end());
        records.push_back(std::move(record));
    }
    if (!r.ok()) return std::nullopt;
    return records;
}

std::optional<std::vector<std::string>> ExtensionClient::hello(const std::vector<std::string>& features) {
    ExtensionsHello request;
    request.features = features;
    send(kLobbyChannel, encode(request));
    const std::optional<Bytes> answer = awaitLobby({ExtensionsGranted::kType}, 3000);
    if (!answer) return std::nullopt;
    const std::optional<ExtensionsGranted> granted = decode<ExtensionsGranted>(*answer);
    if (!granted) return std::nullopt;
    return granted->features;
}

bool ExtensionClient::awaitTicket(int timeoutMs) {
    const std::optional<Bytes> message = awaitLobby({RejoinTicket::kType}, timeoutMs);
    if (!message) return false;
    const std::optional<RejoinTicket> ticket = decode<RejoinTicket>(*message);
    if (!ticket) return false;
    ticket_ = Ticket{ticket->roomId, ticket->slot, Bytes(ticket->token.begin(), ticket->token.end())};
    return true;
}

std::optional<Bytes> ExtensionClient::rejoin(const Ticket& ticket) {
    send(kLobbyChannel, encode(Rejoin{1, ticket.roomId, ByteView(ticket.token)}));
    std::optional<Bytes> answer = awaitLobby({RejoinAccepted::kType, JoinRefused::kType}, 3000);
    if (answer && typeOf(*answer) == RejoinAccepted::kType) {
        // The token presented is spent; the new one serves from now on.
        if (const std::optional<RejoinAccepted> accepted = decode<RejoinAccepted>(*answer))
            ticket_ = Ticket{accepted->roomId, accepted->slot, Bytes(accepted->token.begin(), accepted->token.end())};
        stream_ = Stream{};
    }
    return answer;
}

std::optional<Bytes> ExtensionClient::spectate(std::uint32_t roomId, std::string_view password) {
    send(kLobbyChannel, encode(Spectate{1, roomId, std::string(password)}));
    std::optional<Bytes> answer = awaitLobby({SpectateAccepted::kType, JoinRefused::kType}, 3000);
    if (answer && typeOf(*answer) == SpectateAccepted::kType) stream_ = Stream{};
    return answer;
}

bool ExtensionClient::readStream(int timeoutMs, const std::function<bool(const Stream&)>& enough) {
    while (!stream_.caughtUp && !stream_.ended && !(enough && enough(stream_))) {
        std::optional<Bytes> message = nextOn(kLobbyChannel, timeoutMs);
        if (!message) return false;
        switch (typeOf(*message)) {
            case CatchUp::kType: {
                const std::optional<CatchUp> run = decode<CatchUp>(*message);
                std::optional<std::vector<Record>> records = run ? parseRecords(run->records) : std::nullopt;
                if (!records) {
                    stream_.damaged = true;
                    break;
                }
                stream_.records.insert(stream_.records.end(), records->begin(), records->end());
                break;
            }
            case CatchUpDone::kType:
                stream_.caughtUp = true;
                break;
            case WatchEnded::kType:
                stream_.ended = decode<WatchEnded>(*message);
                break;
            case StateSnapshot::kType:
                if (const std::optional<StateSnapshot> snapshot = decode<StateSnapshot>(*message)) {
                    stream_.snapshotStep = snapshot->step;
                    stream_.snapshot.assign(snapshot->state.begin(), snapshot->state.end());
                }
                break;
            default:
                stream_.others.push_back(std::move(*message));
        }
    }
    return true;
}

std::optional<StateRequest> ExtensionClient::answerStateRequest(std::uint32_t step, ByteView state, int timeoutMs) {
    const std::optional<Bytes> message = awaitLobby({StateRequest::kType}, timeoutMs);
    if (!message) return std::nullopt;
    std::optional<StateRequest> request = decode<StateRequest>(*message);
    if (request) send(kLobbyChannel, encode(StateSnapshot{1, request->requestId, step, state}));
    return request;
}

std::optional<Bytes> ExtensionClient::awaitLobby(std::initializer_list<std::uint32_t> types, int timeoutMs) {
    for (std::optional<Bytes> m; (m = nextOn(kLobbyChannel, timeoutMs));)
        for (std::uint32_t type : types)
            if (typeOf(*m) == type) return m;
    return std::nullopt;
}
