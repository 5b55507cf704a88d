#include "replay.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <set>
#include <system_error>

#include "protocol/messages.h"

namespace fs = std::filesystem;

namespace replay {

std::string hex32(std::uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

std::string seconds(std::uint32_t millis) {
    char text[32];
    std::snprintf(text, sizeof text, "%u.%03u", millis / 1000, millis % 1000);
    return text;
}

std::string utcTime(std::uint64_t unixSeconds) {
    const std::time_t t = static_cast<std::time_t>(unixSeconds);
    std::tm tm{};
    if (gmtime_r(&t, &tm) == nullptr) return "?";
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &tm);
    return text;
}

namespace {



std::string quoted(const std::string& text) { return "\"" + printable(text) + "\""; }


// The first bytes of an order, enough to tell two orders apart at a glance.
std::string hexPrefix(ByteView bytes, std::size_t limit) {
    std::string text;
    for (std::size_t i = 0; i < bytes.size() && i < limit; ++i) {
        char two[4];
        std::snprintf(two, sizeof two, "%02x", bytes[i]);
        if (i > 0 && i % 4 == 0) text += ' ';
        text += two;
    }
    if (bytes.size() > limit) text += " ...";
    return text;
}

std::string orderKind(ByteView bytes) {
    const std::optional<Order> order = parseOrder(bytes);
    if (!order) return "type ?";
    if (isStepDoneOrder(*order)) return "step-done";
    return "type " + std::to_string(order->orderType);
}

std::string settingsText(const Bytes& settings) {
    const std::optional<GameSettings> decoded = decode<GameSettings>(settings);
    std::string text = "settings " + std::to_string(settings.size()) + " bytes";
    if (decoded)
        text += " (mode " + std::to_string(decoded->gameMode) + ", map " + quoted(decoded->mapName) + ", " +
                std::to_string(decoded->startLocations) + " start locations)";
    return text;
}

std::string malformed(const Record& record) {
    return std::string(recordTypeName(record.type)) + " (malformed, " + std::to_string(record.payload.size()) +
           " bytes)";
}

const RecordedPlayer* playerAt(const RecordingHeader* header, std::uint32_t slot) {
    if (header == nullptr) return nullptr;
    for (const RecordedPlayer& p : header->players)
        if (p.slot == slot) return &p;
    return nullptr;
}

std::string slotName(const RecordingHeader* header, std::uint32_t slot) {
    std::string text = "slot " + std::to_string(slot);
    if (const RecordedPlayer* p = playerAt(header, slot)) text += " " + quoted(p->name);
    return text;
}

// The file read, and the message for a file that cannot be used at all.
bool readable(const RecordingRead& read, std::ostream& err) {
    if (read.preambleOk && read.version == kRecordingVersion) return true;
    err << "lockstep-replay: " << read.problem << "\n";
    return false;
}

std::optional<RecordingHeader> headerOf(const RecordingRead& read) {
    if (read.records.empty() || read.records.front().type != RecordType::header) return std::nullopt;
    return decodeHeader(read.records.front().payload);
}

// Looks for the directory the server wrote the evidence in: a base name is
// relative to the server's data root, which is usually an ancestor of the
// recordings directory.
std::optional<fs::path> findDataRoot(const std::string& base, const std::string& recordingPath) {
    const fs::path evidenceDir = fs::path(base).parent_path();
    std::error_code ec;
    if (fs::path(base).is_absolute()) {
        if (fs::is_directory(evidenceDir, ec)) return fs::path();
        return std::nullopt;
    }
    std::vector<fs::path> roots;
    fs::path dir = fs::absolute(fs::path(recordingPath), ec).parent_path();
    for (int depth = 0; depth < 16 && !dir.empty(); ++depth) {
        roots.push_back(dir);
        if (dir == dir.parent_path()) break;
        dir = dir.parent_path();
    }
    roots.push_back(fs::current_path(ec));
    for (const fs::path& root : roots)
        if (!root.empty() && fs::is_directory(root / evidenceDir, ec)) return root;
    return std::nullopt;
}

}  // namespace

std::string problemOf(const RecordingRead& read) {
    if (!read.problem.empty()) return read.problem;
    if (!headerOf(read)) return "no header: the first record is not a readable header";
    // The server closes every recording with one of these; a file without
    // either was cut short between two records (a crash, a full disk), or the
    // match is still being recorded.
    const RecordType last = read.records.back().type;
    if (last != RecordType::end && last != RecordType::lost)
        return "cut short at byte " + std::to_string(read.validBytes) +
               ": no end record after the last whole one (or the match is still being recorded)";
    return "";
}

std::string printable(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7F && c != '\\' && c != '"') {
            out += static_cast<char>(c);
        } else if (c == '\\' || c == '"') {
            out += '\\';
            out += static_cast<char>(c);
        } else {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        }
    }
    return out;
}

std::optional<OrderRecord> decodeOrder(const Record& record) {
    Reader r(record.payload);
    OrderRecord o;
    o.step = r.u32();
    o.slot = r.u32();
    if (!r.ok()) return std::nullopt;
    o.bytes = ByteView(record.payload).subspan(r.offset());
    return o;
}

std::optional<StepRecord> decodeStep(const Record& record) {
    Reader r(record.payload);
    StepRecord s{r.u32(), r.u32()};
    if (!r.ok()) return std::nullopt;
    return s;
}

std::optional<DelayRecord> decodeDelay(const Record& record) {
    Reader r(record.payload);
    DelayRecord d;
    d.lastStep = r.u32();
    d.change = r.u32();
    d.delay = r.u32();
    if (!r.ok()) return std::nullopt;
    return d;
}

std::optional<ChecksumRecord> decodeChecksum(const Record& record) {
    Reader r(record.payload);
    ChecksumRecord c;
    c.step = r.u32();
    c.slot = r.u32();
    c.value = r.u32();
    if (!r.ok()) return std::nullopt;
    return c;
}

std::optional<DesyncRecord> decodeDesync(const Record& record) {
    Reader r(record.payload);
    DesyncRecord d;
    d.step = r.u32();
    d.number = r.u32();
    d.evidenceBase = r.str();
    if (!r.ok()) return std::nullopt;
    return d;
}

std::optional<LeftRecord> decodeLeft(const Record& record) {
    Reader r(record.payload);
    LeftRecord l;
    l.slot = r.u32();
    l.why = r.u32();
    l.name = r.str();
    if (!r.ok()) return std::nullopt;
    return l;
}

std::optional<EndRecord> decodeEnd(const Record& record) {
    Reader r(record.payload);
    EndRecord e;
    e.why = r.u32();
    e.lastStep = r.u32();
    if (!r.ok()) return std::nullopt;
    return e;
}

std::optional<LostRecord> decodeLost(const Record& record) {
    Reader r(record.payload);
    LostRecord l;
    l.why = r.str();
    if (!r.ok()) return std::nullopt;
    return l;
}

std::string describe(const Record& record) {
    std::string line = seconds(record.millis) + " ";
    switch (record.type) {
        case RecordType::header: {
            const std::optional<RecordingHeader> h = decodeHeader(record.payload);
            if (!h) return line + malformed(record);
            return line + "header room " + std::to_string(h->roomId) + " " + quoted(h->roomName) + " dataset " +
                   quoted(h->dataset) + " checksum " + hex32(h->datasetChecksum) + " " + settingsText(h->settings) +
                   " server " + quoted(h->serverVersion) + " started " + utcTime(h->startUnix) + " players " +
                   std::to_string(h->players.size());
        }
        case RecordType::order: {
            const std::optional<OrderRecord> o = decodeOrder(record);
            if (!o) return line + malformed(record);
            return line + "order step " + std::to_string(o->step) + " slot " + std::to_string(o->slot) + " " +
                   orderKind(o->bytes) + " length " + std::to_string(o->bytes.size());
        }
        case RecordType::stepCompleted: {
            const std::optional<StepRecord> s = decodeStep(record);
            if (!s) return line + malformed(record);
            return line + "step " + std::to_string(s->step) + " completed, slot " + std::to_string(s->slot);
        }
        case RecordType::delay: {
            const std::optional<DelayRecord> d = decodeDelay(record);
            if (!d) return line + malformed(record);
            const std::string change = d->change == 1   ? "longer"
                                       : d->change == 2 ? "shorter"
                                       : d->change == 0 ? "set back by the resync"
                                                        : "change " + std::to_string(d->change);
            return line + "delay " + change + " after step " + std::to_string(d->lastStep) + ", now " +
                   std::to_string(d->delay);
        }
        case RecordType::checksum: {
            const std::optional<ChecksumRecord> c = decodeChecksum(record);
            if (!c) return line + malformed(record);
            return line + "checksum step " + std::to_string(c->step) + " slot " + std::to_string(c->slot) + " " +
                   hex32(c->value);
        }
        case RecordType::desync: {
            const std::optional<DesyncRecord> d = decodeDesync(record);
            if (!d) return line + malformed(record);
            return line + "desync step " + std::to_string(d->step) + " number " + std::to_string(d->number) +
                   " evidence " + quoted(d->evidenceBase);
        }
        case RecordType::left: {
            const std::optional<LeftRecord> l = decodeLeft(record);
            if (!l) return line + malformed(record);
            const std::string why = l->why == 0   ? "left"
                                    : l->why == 1 ? "disconnected"
                                                  : "why " + std::to_string(l->why);
            return line + "left slot " + std::to_string(l->slot) + " " + quoted(l->name) + " " + why;
        }
        case RecordType::end: {
            const std::optional<EndRecord> e = decodeEnd(record);
            if (!e) return line + malformed(record);
            const std::string why = e->why == 0   ? "every player gone"
                                    : e->why == 1 ? "the server stopped"
                                                  : "why " + std::to_string(e->why);
            return line + "end " + why + ", last step " + std::to_string(e->lastStep);
        }
        case RecordType::lost: {
            const std::optional<LostRecord> l = decodeLost(record);
            if (!l) return line + malformed(record);
            return line + "lost " + quoted(l->why);
        }
        case RecordType::away: {
            Reader r(record.payload);
            const std::uint32_t slot = r.u32();
            if (!r.ok()) return line + malformed(record);
            return line + "away slot " + std::to_string(slot);
        }
        case RecordType::rejoin: {
            Reader r(record.payload);
            const std::uint32_t slot = r.u32(), step = r.u32();
            const ByteView snapshot = r.blob();
            if (!r.ok()) return line + malformed(record);
            return line + "rejoin slot " + std::to_string(slot) +
                   (step == 0xFFFFFFFFu ? std::string(", no snapshot")
                                        : ", snapshot of step " + std::to_string(step) + " length " +
                                              std::to_string(snapshot.size()));
        }
    }
    return line + "record type " + std::to_string(static_cast<unsigned>(record.type)) + " (unknown), " +
           std::to_string(record.payload.size()) + " bytes";
}

int show(ByteView file, std::ostream& out, std::ostream& err) {
    const RecordingRead read = readRecording(file);
    if (!readable(read, err)) return kUnreadable;
    for (const Record& record : read.records) {
        out << describe(record) << "\n";
        if (record.type != RecordType::header) continue;
        if (const std::optional<RecordingHeader> h = decodeHeader(record.payload))
            for (const RecordedPlayer& p : h->players)
                out << "      player slot " << p.slot << " tag " << p.tag << " location " << p.location << " "
                    << quoted(p.name) << "\n";
    }
    const std::string problem = problemOf(read);
    if (problem.empty()) return kClean;
    err << "lockstep-replay: " << problem << "\n";
    return kDamaged;
}

int check(ByteView file, std::ostream& out) {
    const RecordingRead read = readRecording(file);
    if (!read.preambleOk || read.version != kRecordingVersion) {
        out << read.problem << "\n";
        return kUnreadable;
    }
    out << read.records.size() << " whole records, " << read.validBytes << " of " << file.size() << " bytes\n";
    const std::string problem = problemOf(read);
    if (problem.empty()) return kClean;
    out << problem << "\n";
    return kDamaged;
}

DesyncFinding findDesync(const std::vector<Record>& records) {
    DesyncFinding finding;
    // Checksums by step and slot. A zero is what the server takes for "not
    // yet reported", so it takes no side either.
    std::map<std::uint32_t, std::map<std::uint32_t, std::uint32_t>> byStep;
    std::optional<DesyncRecord> firstRecord;
    std::uint32_t firstRecordMillis = 0;
    for (const Record& record : records) {
        if (record.type == RecordType::checksum) {
            if (const std::optional<ChecksumRecord> c = decodeChecksum(record); c && c->value != 0)
                byStep[c->step][c->slot] = c->value;
        } else if (record.type == RecordType::desync && !firstRecord) {
            firstRecord = decodeDesync(record);
            firstRecordMillis = record.millis;
        }
    }
    for (const auto& [step, slots] : byStep) {
        std::set<std::uint32_t> values;
        for (const auto& [slot, value] : slots) values.insert(value);
        if (values.size() < 2) continue;
        finding.found = true;
        finding.fromChecksums = true;
        finding.step = step;
        for (const auto& [slot, value] : slots) {
            // A copy: clang 14 cannot capture a structured binding in a lambda.
            const std::uint32_t checksum = value;
            auto side = std::find_if(finding.sides.begin(), finding.sides.end(),
                                     [checksum](const DesyncFinding::Side& s) { return s.checksum == checksum; });
            if (side == finding.sides.end()) {
                finding.sides.push_back({value, {}});
                side = finding.sides.end() - 1;
            }
            side->slots.push_back(slot);  // slots come in order, so each side's first is its lowest
        }
        break;
    }
    if (!finding.found && firstRecord) {
        finding.found = true;
        finding.step = firstRecord->step;
    }
    if (!finding.found) return finding;
    // The server's record of this desync; failing that, its first one.
    for (const Record& record : records) {
        if (record.type != RecordType::desync) continue;
        const std::optional<DesyncRecord> d = decodeDesync(record);
        if (d && d->step == finding.step) {
            finding.record = d;
            finding.recordMillis = record.millis;
            break;
        }
    }
    if (!finding.record && firstRecord) {
        finding.record = firstRecord;
        finding.recordMillis = firstRecordMillis;
    }
    // Orders for a step are sent that many steps ahead: the delay in force is
    // the one set after the last step completed before it.
    for (const Record& record : records) {
        if (record.type != RecordType::delay) continue;
        const std::optional<DelayRecord> d = decodeDelay(record);
        if (!d) continue;
        if (d->lastStep >= finding.step) break;
        finding.orderDelay = d->delay;
    }
    return finding;
}

int desync(ByteView file, const std::string& path, std::ostream& out, std::ostream& err) {
    const RecordingRead read = readRecording(file);
    if (!readable(read, err)) return kUnreadable;
    const std::string problem = problemOf(read);
    const int status = problem.empty() ? kClean : kDamaged;
    if (status == kDamaged) err << "lockstep-replay: " << problem << " (what comes before it is used)\n";
    const std::optional<RecordingHeader> header = headerOf(read);
    const RecordingHeader* h = header ? &*header : nullptr;

    const DesyncFinding finding = findDesync(read.records);
    if (!finding.found) {
        out << "no desync: the slots' checksums agree at every step recorded\n";
        return status;
    }
    out << "first desync at step " << finding.step
        << (finding.fromChecksums ? " (the checksums differ)" : " (from the desync record; no checksums differ)")
        << "\n";
    std::set<std::uint32_t> reported;
    for (const DesyncFinding::Side& side : finding.sides) {
        out << "  checksum " << hex32(side.checksum) << ":";
        for (std::size_t i = 0; i < side.slots.size(); ++i) {
            out << (i == 0 ? " " : ", ") << slotName(h, side.slots[i]);
            reported.insert(side.slots[i]);
        }
        out << "\n";
    }
    if (h != nullptr && finding.fromChecksums) {
        std::string missing;
        for (const RecordedPlayer& p : h->players)
            if (!reported.contains(p.slot)) missing += (missing.empty() ? " " : ", ") + slotName(h, p.slot);
        if (!missing.empty()) out << "  no checksum:" << missing << "\n";
    }
    if (finding.record) {
        out << "desync record: step " << finding.record->step << ", desync number " << finding.record->number
            << ", at " << seconds(finding.recordMillis) << " s\n";
    } else {
        out << "no desync record: the server did not declare this one\n";
    }

    const std::uint32_t from = finding.step > finding.orderDelay ? finding.step - finding.orderDelay : 0;
    out << "order delay " << finding.orderDelay << ": the orders of steps " << from << " to " << finding.step << "\n";
    std::size_t orders = 0;
    for (const Record& record : read.records) {
        if (record.type != RecordType::order) continue;
        const std::optional<OrderRecord> o = decodeOrder(record);
        if (!o || o->step < from || o->step > finding.step) continue;
        out << "  " << describe(record) << " bytes " << hexPrefix(o->bytes, 24) << "\n";
        ++orders;
    }
    if (orders == 0) out << "  none\n";

    // The server names the evidence of each slot after the desync's base name.
    std::string base;
    if (finding.record) {
        base = finding.record->evidenceBase;
    } else {
        base = "server_data/resyncs/room" + std::to_string(h != nullptr ? h->roomId : 0) + "_desync1";
        out << "(no desync record: the evidence names are the server's first for the room)\n";
    }
    const std::optional<fs::path> root = findDataRoot(base, path);
    if (root && !root->empty())
        out << "evidence files (data root " << root->string() << "):\n";
    else if (root)
        out << "evidence files:\n";
    else if (fs::path(base).is_absolute())
        out << "evidence files (their directory is not on this machine):\n";
    else
        out << "evidence files (not found near the recording; relative to the server's data root):\n";
    std::vector<std::uint32_t> slots;
    if (h != nullptr)
        for (const RecordedPlayer& p : h->players) slots.push_back(p.slot);
    for (const DesyncFinding::Side& side : finding.sides)
        for (std::uint32_t slot : side.slots)
            if (std::find(slots.begin(), slots.end(), slot) == slots.end()) slots.push_back(slot);
    std::sort(slots.begin(), slots.end());
    for (std::uint32_t slot : slots) {
        for (const char* suffix : {".world", ".log"}) {
            const std::string name = base + "_peer" + std::to_string(slot) + suffix;
            out << "  " << name;
            if (root) {
                std::error_code ec;
                const fs::path at = root->empty() ? fs::path(name) : *root / name;
                const std::uintmax_t size = fs::file_size(at, ec);
                if (ec)
                    out << "  missing";
                else
                    out << "  present, " << size << " bytes";
            }
            out << "\n";
        }
    }
    return status;
}

}  // namespace replay
