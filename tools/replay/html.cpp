// The match as one page: a timeline in inline SVG (the time between step
// completions, the order delay, players leaving, desyncs) above the players
// and the match's events. No scripts and nothing fetched, so the page can be
// mailed or attached to a bug report as it is. Kept well-formed XML so that
// any XML parser can read it back.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>
#include <sstream>

#include "game/match.h"
#include "replay.h"

namespace replay {

namespace {

constexpr double kNominalStepMillis = STEP_SECONDS * 1000;
// Beyond this many rows the events table would bury the page.
constexpr std::size_t kMaxEventRows = 400;

// Text for XML: the wire's 8-bit strings read as Latin-1, control
// characters (which XML cannot carry) as '?'.
std::string xml(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&#39;"; break;
            default:
                if (c >= 0x80)
                    out += "&#" + std::to_string(c) + ";";
                else if (c < 0x20 && c != '\t' && c != '\n')
                    out += '?';
                else
                    out += static_cast<char>(c);
        }
    }
    return out;
}

std::string num(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", v);
    return text;
}

// An axis label: whole numbers without the decimal.
std::string label(double v) {
    if (v == std::floor(v)) return std::to_string(static_cast<long long>(v));
    return num(v);
}




// A round tick spacing (1, 2 or 5 times a power of ten) giving at most
// `most` ticks over `span`.
double tickSpacing(double span, int most) {
    if (span <= 0) return 1;
    const double raw = span / most;
    const double power = std::pow(10.0, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (m * power >= raw) return std::max(1.0, m * power);
    return std::max(1.0, 10 * power);
}

struct Marker {
    std::uint32_t step = 0;
    std::string cls;
    std::string label;
};

struct EventRow {
    std::uint32_t millis = 0;
    std::uint32_t step = 0;
    std::string cls;
    std::string text;
};

struct Timeline {
    std::optional<RecordingHeader> header;
    std::map<std::uint32_t, std::uint32_t> completedAt;  // step -> millis of its first completion record
    std::vector<std::pair<std::uint32_t, std::uint32_t>> delays;  // from step -> delay
    std::vector<Marker> markers;
    std::vector<EventRow> events;
    std::map<std::uint32_t, std::string> leftAt;  // slot -> when and why, for the players table
    std::uint32_t lastMillis = 0;
    std::uint32_t lastStep = 0;
};

Timeline build(const std::vector<Record>& records) {
    Timeline t;
    if (!records.empty() && records.front().type == RecordType::header)
        t.header = decodeHeader(records.front().payload);
    t.delays.emplace_back(0, kInitialOrderDelay);
    // The last step completed when a record was written places the records
    // that carry no step of their own.
    std::uint32_t completed = 0;
    for (const Record& record : records) {
        t.lastMillis = std::max(t.lastMillis, record.millis);
        switch (record.type) {
            case RecordType::stepCompleted:
                if (const std::optional<StepRecord> s = decodeStep(record)) {
                    t.completedAt.try_emplace(s->step, record.millis);
                    completed = std::max(completed, s->step);
                }
                break;
            case RecordType::delay:
                if (const std::optional<DelayRecord> d = decodeDelay(record)) {
                    t.delays.emplace_back(d->lastStep, d->delay);
                    const std::string change = d->change == 1   ? "longer"
                                               : d->change == 2 ? "shorter"
                                                                : "change " + std::to_string(d->change);
                    t.events.push_back({record.millis, d->lastStep, "delay",
                                        "order delay " + change + ": " + std::to_string(d->delay)});
                }
                break;
            case RecordType::desync:
                if (const std::optional<DesyncRecord> d = decodeDesync(record)) {
                    t.markers.push_back({d->step, "desync", "desync at step " + std::to_string(d->step)});
                    t.events.push_back({record.millis, d->step, "desync",
                                        "desync number " + std::to_string(d->number) + " at step " +
                                            std::to_string(d->step) + "; evidence " + d->evidenceBase});
                }
                break;
            case RecordType::left:
                if (const std::optional<LeftRecord> l = decodeLeft(record)) {
                    const std::string why = l->why == 1 ? "disconnected" : "left";
                    t.markers.push_back({completed, "left", l->name + " " + why});
                    t.events.push_back({record.millis, completed, "left",
                                        "slot " + std::to_string(l->slot) + " " + l->name + " " + why});
                    t.leftAt[l->slot] = why + " after step " + std::to_string(completed) + " (" +
                                        seconds(record.millis) + " s)";
                }
                break;
            case RecordType::lost:
                if (const std::optional<LostRecord> l = decodeLost(record)) {
                    t.markers.push_back({completed, "lost", "recording lost"});
                    t.events.push_back({record.millis, completed, "lost", "recording lost: " + l->why});
                }
                break;
            case RecordType::end:
                if (const std::optional<EndRecord> e = decodeEnd(record)) {
                    completed = std::max(completed, e->lastStep);
                    t.events.push_back({record.millis, e->lastStep, "end",
                                        std::string("end: ") +
                                            (e->why == 0 ? "every player gone" : "the server stopped")});
                }
                break;
            default: break;
        }
    }
    t.lastStep = completed;
    for (const Marker& m : t.markers) t.lastStep = std::max(t.lastStep, m.step);
    return t;
}

void svg(std::ostream& out, const Timeline& t, const DesyncFinding& finding) {
    constexpr double width = 1000, left = 70, right = 20, plotWidth = width - left - right;
    constexpr double labelsTop = 16, labelRows = 3, rowHeight = 14;
    constexpr double topA = labelsTop + labelRows * rowHeight + 10, heightA = 240;
    constexpr double topB = topA + heightA + 40, heightB = 90;
    constexpr double axisY = topB + heightB, height = axisY + 40;

    const std::uint32_t firstStep = t.completedAt.empty() ? 0 : t.completedAt.begin()->first;
    const std::uint32_t lastStep = std::max({t.lastStep, firstStep + 1, finding.found ? finding.step : 0u});
    const double span = lastStep - firstStep;
    auto x = [&](double step) { return left + (step - firstStep) / span * plotWidth; };

    // The time between a step's completion and the one before it.
    std::vector<std::pair<std::uint32_t, double>> gaps;
    for (auto it = t.completedAt.begin(); it != t.completedAt.end(); ++it) {
        if (it == t.completedAt.begin()) continue;
        const auto before = std::prev(it);
        if (it->second >= before->second) gaps.emplace_back(it->first, it->second - before->second);
    }
    double highest = kNominalStepMillis * 2;
    for (const auto& g : gaps) highest = std::max(highest, g.second);
    auto yA = [&](double millis) { return topA + heightA - millis / highest * heightA; };
    std::uint32_t highestDelay = 4;
    for (const auto& d : t.delays) highestDelay = std::max(highestDelay, d.second);
    auto yB = [&](double delay) { return topB + heightB - delay / (highestDelay + 1) * heightB; };

    out << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
        << "\" viewBox=\"0 0 " << width << " " << height << "\" font-family=\"sans-serif\" font-size=\"11\">\n";
    out << "<rect x=\"0\" y=\"0\" width=\"" << width << "\" height=\"" << height << "\" fill=\"#ffffff\"/>\n";

    // Panel frames, grid and labels.
    out << "<text x=\"" << left << "\" y=\"" << topA - 4 << "\" font-weight=\"bold\">time between step completions (ms)</text>\n";
    out << "<rect x=\"" << left << "\" y=\"" << topA << "\" width=\"" << plotWidth << "\" height=\"" << heightA
        << "\" fill=\"none\" stroke=\"#999999\"/>\n";
    const double gridA = tickSpacing(highest, 5);
    for (double v = 0; v <= highest; v += gridA) {
        out << "<line x1=\"" << left << "\" y1=\"" << num(yA(v)) << "\" x2=\"" << left + plotWidth << "\" y2=\""
            << num(yA(v)) << "\" stroke=\"#eeeeee\"/>\n";
        out << "<text x=\"" << left - 4 << "\" y=\"" << num(yA(v) + 4) << "\" text-anchor=\"end\">" << label(v)
            << "</text>\n";
    }
    out << "<line class=\"nominal\" x1=\"" << left << "\" y1=\"" << num(yA(kNominalStepMillis)) << "\" x2=\""
        << left + plotWidth << "\" y2=\"" << num(yA(kNominalStepMillis))
        << "\" stroke=\"#33aa33\" stroke-dasharray=\"4 3\"/>\n";
    out << "<text x=\"" << left + plotWidth - 4 << "\" y=\"" << num(yA(kNominalStepMillis) - 3)
        << "\" text-anchor=\"end\" fill=\"#33aa33\">one step: " << label(kNominalStepMillis) << " ms</text>\n";

    out << "<text x=\"" << left << "\" y=\"" << topB - 4 << "\" font-weight=\"bold\">order delay (steps)</text>\n";
    out << "<rect x=\"" << left << "\" y=\"" << topB << "\" width=\"" << plotWidth << "\" height=\"" << heightB
        << "\" fill=\"none\" stroke=\"#999999\"/>\n";
    for (std::uint32_t v = 0; v <= highestDelay; v += static_cast<std::uint32_t>(tickSpacing(highestDelay, 4)))
        out << "<text x=\"" << left - 4 << "\" y=\"" << num(yB(v) + 4) << "\" text-anchor=\"end\">" << v
            << "</text>\n";

    // The step axis, shared by both panels.
    const double gridX = tickSpacing(span, 10);
    for (double s = std::ceil(firstStep / gridX) * gridX; s <= lastStep; s += gridX) {
        out << "<line x1=\"" << num(x(s)) << "\" y1=\"" << axisY << "\" x2=\"" << num(x(s)) << "\" y2=\"" << axisY + 5
            << "\" stroke=\"#999999\"/>\n";
        out << "<text x=\"" << num(x(s)) << "\" y=\"" << axisY + 17 << "\" text-anchor=\"middle\">"
            << static_cast<std::uint64_t>(s) << "</text>\n";
    }
    out << "<text x=\"" << left + plotWidth / 2 << "\" y=\"" << axisY + 32 << "\" text-anchor=\"middle\">step</text>\n";

    // The completion gaps: a long match keeps, per pixel column, its
    // shortest and longest gap, so that no stall disappears.
    out << "<polyline class=\"completions\" fill=\"none\" stroke=\"#2255cc\" stroke-width=\"1\" points=\"";
    if (gaps.size() <= 2 * plotWidth) {
        for (const auto& g : gaps) out << num(x(g.first)) << "," << num(yA(g.second)) << " ";
    } else {
        std::map<long, std::pair<double, double>> columns;
        for (const auto& g : gaps) {
            auto [it, fresh] = columns.try_emplace(std::lround(x(g.first)), g.second, g.second);
            it->second.first = std::min(it->second.first, g.second);
            it->second.second = std::max(it->second.second, g.second);
        }
        for (const auto& [column, range] : columns)
            out << column << "," << num(yA(range.first)) << " " << column << "," << num(yA(range.second)) << " ";
    }
    out << "\"/>\n";

    // The delay as steps: it holds until the next change.
    out << "<polyline class=\"delay\" fill=\"none\" stroke=\"#aa6600\" stroke-width=\"1.5\" points=\"";
    for (std::size_t i = 0; i < t.delays.size(); ++i) {
        const double from = std::max<double>(t.delays[i].first, firstStep);
        if (i > 0) out << num(x(from)) << "," << num(yB(t.delays[i - 1].second)) << " ";
        out << num(x(from)) << "," << num(yB(t.delays[i].second)) << " ";
    }
    out << num(x(lastStep)) << "," << num(yB(t.delays.back().second)) << "\"/>\n";

    // Marked lines across both panels, labelled above them.
    std::vector<Marker> markers = t.markers;
    if (finding.found && finding.fromChecksums &&
        std::none_of(markers.begin(), markers.end(),
                     [&](const Marker& m) { return m.cls == "desync" && m.step == finding.step; }))
        markers.push_back({finding.step, "desync", "desync at step " + std::to_string(finding.step)});
    // The steps whose orders lead up to the first desync, shaded.
    if (finding.found) {
        const double from = std::max<double>(firstStep, finding.step > finding.orderDelay ? finding.step - finding.orderDelay : 0);
        out << "<rect class=\"desync-orders\" x=\"" << num(x(from)) << "\" y=\"" << topA << "\" width=\""
            << num(std::max(1.0, x(finding.step) - x(from))) << "\" height=\"" << axisY - topA
            << "\" fill=\"#dd0000\" fill-opacity=\"0.08\"/>\n";
    }
    std::size_t row = 0;
    for (const Marker& m : markers) {
        const bool desync = m.cls == "desync";
        const std::string colour = desync ? "#dd0000" : m.cls == "lost" ? "#666666" : "#ee8800";
        const double labelY = labelsTop + static_cast<double>(row++ % static_cast<std::size_t>(labelRows)) * rowHeight;
        out << "<line class=\"" << m.cls << "\" x1=\"" << num(x(m.step)) << "\" y1=\"" << labelY + 3 << "\" x2=\""
            << num(x(m.step)) << "\" y2=\"" << axisY << "\" stroke=\"" << colour << "\" stroke-width=\""
            << (desync ? 2 : 1) << "\"" << (desync ? "" : " stroke-dasharray=\"5 3\"") << "/>\n";
        // Labels in the right quarter read leftwards from their line, so
        // that none runs off the picture.
        const bool leftwards = x(m.step) > left + plotWidth * 0.75;
        out << "<text class=\"" << m.cls << "\" x=\"" << num(x(m.step) + (leftwards ? -3 : 3)) << "\" y=\"" << labelY
            << "\"" << (leftwards ? " text-anchor=\"end\"" : "") << " fill=\"" << colour << "\""
            << (desync ? " font-weight=\"bold\"" : "") << ">" << xml(m.label) << "</text>\n";
    }
    out << "</svg>\n";
}

}  // namespace

int html(ByteView file, std::ostream& out, std::ostream& err) {
    const RecordingRead read = readRecording(file);
    if (!read.preambleOk || read.version != kRecordingVersion) {
        err << "lockstep-replay: " << read.problem << "\n";
        return kUnreadable;
    }
    const Timeline t = build(read.records);
    const DesyncFinding finding = findDesync(read.records);
    const RecordingHeader* h = t.header ? &*t.header : nullptr;
    const std::string title =
        h != nullptr ? "Match in room " + std::to_string(h->roomId) + " \"" + h->roomName + "\"" : "Match";

    out << "<!DOCTYPE html>\n<html xmlns=\"http://www.w3.org/1999/xhtml\" lang=\"en\">\n<head>\n"
        << "<meta charset=\"utf-8\"/>\n<title>" << xml(title) << "</title>\n"
        << "<style>body{font-family:sans-serif;margin:1.5em;color:#222222}"
           "table{border-collapse:collapse;margin:0.5em 0 1.5em 0}"
           "td,th{border:1px solid #cccccc;padding:2px 8px;text-align:left}"
           ".verdict-bad{color:#dd0000;font-weight:bold}.verdict-good{color:#228822;font-weight:bold}"
           ".problem{color:#dd0000}tr.desync td{color:#dd0000;font-weight:bold}tr.left td{color:#aa6600}"
           "</style>\n</head>\n<body>\n";
    out << "<h1>" << xml(title) << "</h1>\n";
    if (h != nullptr) {
        out << "<p>dataset " << xml(h->dataset) << " (checksum " << hex32(h->datasetChecksum) << "), "
            << h->players.size() << " players, started " << utcTime(h->startUnix) << ", server " << xml(h->serverVersion)
            << "</p>\n";
    } else {
        out << "<p class=\"problem\">The recording has no readable header.</p>\n";
    }
    out << "<p>" << t.completedAt.size() << " steps completed (last " << t.lastStep << ") in " << seconds(t.lastMillis)
        << " s.</p>\n";
    if (finding.found) {
        out << "<p class=\"verdict-bad\">Desync at step " << finding.step;
        if (!finding.sides.empty()) {
            out << ": ";
            for (std::size_t i = 0; i < finding.sides.size(); ++i) {
                out << (i == 0 ? "" : " against ") << (finding.sides[i].slots.size() == 1 ? "slot" : "slots");
                for (std::uint32_t slot : finding.sides[i].slots) out << " " << slot;
                out << " (" << hex32(finding.sides[i].checksum) << ")";
            }
        }
        out << ".</p>\n";
    } else {
        out << "<p class=\"verdict-good\">No desync: the checksums agree at every step recorded.</p>\n";
    }
    const std::string problem = problemOf(read);
    if (!problem.empty())
        out << "<p class=\"problem\">The file is cut short or damaged: " << xml(problem)
            << ". The page shows the records before it.</p>\n";

    svg(out, t, finding);
    out << "<p>Blue: the time between a step's completion and the one before it. Red line: the first desync; "
           "shaded: the steps whose orders lead up to it (the order delay then in force). Dashed: players leaving, "
           "or the recording lost.</p>\n";

    out << "<h2>Players</h2>\n<table>\n<tr><th>slot</th><th>name</th><th>tag</th><th>location</th><th>left</th></tr>\n";
    if (h != nullptr)
        for (const RecordedPlayer& p : h->players) {
            const auto left = t.leftAt.find(p.slot);
            out << "<tr><td>" << p.slot << "</td><td>" << xml(p.name) << "</td><td>" << p.tag << "</td><td>"
                << p.location << "</td><td>" << (left == t.leftAt.end() ? "" : xml(left->second)) << "</td></tr>\n";
        }
    out << "</table>\n";

    out << "<h2>Events</h2>\n<table>\n<tr><th>time (s)</th><th>step</th><th>event</th></tr>\n";
    for (std::size_t i = 0; i < t.events.size() && i < kMaxEventRows; ++i) {
        const EventRow& e = t.events[i];
        out << "<tr class=\"" << e.cls << "\"><td>" << seconds(e.millis) << "</td><td>" << e.step << "</td><td>"
            << xml(e.text) << "</td></tr>\n";
    }
    out << "</table>\n";
    if (t.events.size() > kMaxEventRows)
        out << "<p>" << t.events.size() - kMaxEventRows << " more events: see replay show.</p>\n";
    out << "</body>\n</html>\n";

    if (problem.empty()) return kClean;
    err << "lockstep-replay: " << problem << "\n";
    return kDamaged;
}

}  // namespace replay
