#pragma once
// Recordings built record by record, as the server would write them: the
// replay tool's tests and the sample the screenshot target renders.

#include <string>
#include <vector>

#include "protocol/messages.h"
#include "protocol/recording.h"

namespace synthetic {

class RecordingBuilder {
public:
    RecordingBuilder() : file_(recordingPreamble()) {}

    RecordingBuilder& add(RecordType type, std::uint32_t millis, const Bytes& payload) {
        starts_.push_back(file_.size());
        const Bytes framed = frameRecord(type, millis, payload);
        file_.insert(file_.end(), framed.begin(), framed.end());
        return *this;
    }
    RecordingBuilder& header(const RecordingHeader& h) { return add(RecordType::header, 0, encodeHeader(h)); }
    RecordingBuilder& order(std::uint32_t millis, std::uint32_t step, std::uint32_t slot, const Bytes& bytes) {
        return add(RecordType::order, millis, Writer().u32(step).u32(slot).bytes(bytes).take());
    }
    RecordingBuilder& completed(std::uint32_t millis, std::uint32_t step, std::uint32_t slot) {
        return add(RecordType::stepCompleted, millis, Writer().u32(step).u32(slot).take());
    }
    RecordingBuilder& delay(std::uint32_t millis, std::uint32_t lastStep, std::uint32_t change, std::uint32_t now) {
        return add(RecordType::delay, millis, Writer().u32(lastStep).u32(change).u32(now).take());
    }
    RecordingBuilder& checksum(std::uint32_t millis, std::uint32_t step, std::uint32_t slot, std::uint32_t value) {
        return add(RecordType::checksum, millis, Writer().u32(step).u32(slot).u32(value).take());
    }
    RecordingBuilder& desync(std::uint32_t millis, std::uint32_t step, std::uint32_t number, const std::string& base) {
        return add(RecordType::desync, millis, Writer().u32(step).u32(number).str(base).take());
    }
    RecordingBuilder& left(std::uint32_t millis, std::uint32_t slot, std::uint32_t why, const std::string& name) {
        return add(RecordType::left, millis, Writer().u32(slot).u32(why).str(name).take());
    }
    RecordingBuilder& end(std::uint32_t millis, std::uint32_t why, std::uint32_t lastStep) {
        return add(RecordType::end, millis, Writer().u32(why).u32(lastStep).take());
    }
    RecordingBuilder& lost(std::uint32_t millis, const std::string& why) {
        return add(RecordType::lost, millis, Writer().str(why).take());
    }

    const Bytes& bytes() const { return file_; }
    // Where each record starts in the file.
    const std::vector<std::size_t>& starts() const { return starts_; }

private:
    Bytes file_;
    std::vector<std::size_t> starts_;
};

inline Bytes gameOrder(std::uint32_t step, std::uint32_t orderType, std::string_view text) {
    Order order;
    order.step = step;
    order.firstList = {};
    order.orderType = orderType;
    order.text = text;
    return serializeOrder(order);
}

inline Bytes stepDone(std::uint32_t step) {
    Order order;
    order.step = step;
    return serializeOrder(order);
}

inline RecordingHeader threePlayers() {
    RecordingHeader h;
    h.roomId = 3;
    h.roomName = "Friday night";
    h.dataset = "classic";
    h.datasetChecksum = 0xC0FFEE;
    GameSettings settings;
    settings.gameMode = 1;
    settings.mapName = "river";
    settings.startLocations = 4;
    h.settings = encode(settings);
    h.players = {{0, 11, 0, "alice"}, {1, 12, 1, "bob"}, {2, 13, 2, "carol"}};
    h.serverVersion = "0.1.0";
    h.startUnix = 1795000000;  // 2026-11-18 11:06:40 UTC
    return h;
}

// A match of three that desyncs at step 70: slot 1 reports another checksum
// than slots 0 and 2. The order delay is lengthened after step 20 (to 3) and
// after step 60 (to 4), so the orders of steps 66 to 70 lead up to it. Step
// 40 stalls for 400 ms; carol disconnects after step 75; it ends at step 80.
inline RecordingBuilder forcedDesync(const std::string& evidenceBase = "server_data/resyncs/room3_desync1") {
    RecordingBuilder b;
    b.header(threePlayers());
    std::uint32_t t = 0;
    for (std::uint32_t step = 1; step <= 80; ++step) {
        t += step == 40 ? 400 : 50;
        if (step % 2 == 1 && step != 67)
            b.order(t - 10, step, step % 3, gameOrder(step, 100 + step % 5, "move"));
        b.order(t - 5, step, 0, stepDone(step));
        b.completed(t, step, 0);
        if (step == 20) b.delay(t + 1, 20, 1, 3);
        if (step == 60) b.delay(t + 1, 60, 1, 4);
        if (step % 10 == 0)
            for (std::uint32_t slot = 0; slot < 3 && !(step > 75 && slot == 2); ++slot)
                b.checksum(t + 2, step, slot, step == 70 && slot == 1 ? 0xBBBB0070u : 0xAAAA0000u + step);
        if (step == 70) b.desync(t + 3, 70, 1, evidenceBase);
        if (step == 75) b.left(t + 4, 2, 1, "carol");
    }
    b.end(t + 100, 0, 80);
    return b;
}

}  // namespace synthetic
