#include "update/downloads.h"

#include <algorithm>
#include <utility>

#include "log/log.h"
#include "protocol/messages.h"

namespace {

bool under(std::size_t limit, std::size_t value) { return limit == 0 || value < limit; }

bool mayStart(const Downloads& d, const Downloads::Peer& p) {
    if (p.reading || p.inFlight != 0 || p.waiting.empty()) return false;
    auto a = d.inFlightByAddress.find(p.address);
    return under(d.maxInFlightPerAddress, a == d.inFlightByAddress.end() ? 0 : a->second);
}

void giveBack(Downloads& d, Downloads::Peer& p) {
    if (p.inFlight == 0) return;
    (p.parked ? d.parked : d.inFlight) -= p.inFlight;
    p.parked = false;
    auto a = d.inFlightByAddress.find(p.address);
    if (a != d.inFlightByAddress.end() && (a->second -= p.inFlight) == 0) d.inFlightByAddress.erase(a);
    p.inFlight = 0;
    p.reply = 0;
}

void send(Downloads& d, ENetPeer* peer, Bytes message) {
    auto it = d.peers.find(peer);
    if (it == d.peers.end() || stillConnected(it->second.to) == nullptr) return;
    Downloads::Peer& p = it->second;
    const std::size_t size = message.size();
    p.reply = ++d.replies;
    p.inFlight = size;
    d.inFlight += size;
    d.inFlightByAddress[p.address] += size;
    p.progressMicros = 0;  // set at the first look
    p.queuedLeft = UINT64_MAX;
    sendOwned(peer, kFileUpdateChannel, std::move(message), [&d, peer, reply = p.reply] {
        auto it = d.peers.find(peer);
        if (it != d.peers.end() && it->second.reply == reply) giveBack(d, it->second);
    });
}

}  // namespace

bool queueFileRequest(Storage& storage, Downloads& downloads, ENetPeer* peer, std::string name, bool refused,
                      FileReader read) {
    auto [it, fresh] = downloads.peers.try_emplace(peer);
    Downloads::Peer& p = it->second;
    if (fresh) {
        p.to = refOf(peer);
        p.address = peer->address.host;
    }
    if (downloads.maxWaitingPerPeer != 0 && p.waiting.size() >= downloads.maxWaitingPerPeer) return false;
    if (p.waiting.empty()) downloads.turns.push_back(peer);
    p.waiting.push_back(Downloads::Request{std::move(name), refused, read});
    pumpDownloads(storage, downloads);
    return true;
}

void pumpDownloads(Storage& storage, Downloads& downloads) {
    if (downloads.reading || downloads.turns.empty() || !under(downloads.maxInFlight, downloads.inFlight)) return;
    // The first peer in turn that may have a reply now; the others keep
    // their places.
    auto next = std::find_if(downloads.turns.begin(), downloads.turns.end(),
                             [&](ENetPeer* peer) { return mayStart(downloads, downloads.peers.at(peer)); });
    if (next == downloads.turns.end()) return;
    ENetPeer* peer = *next;
    Downloads::Peer& p = downloads.peers.at(peer);
    Downloads::Request request = std::move(p.waiting.front());
    p.waiting.pop_front();
    downloads.turns.erase(next);
    if (!p.waiting.empty()) downloads.turns.push_back(peer);
    // Marked before the job is handed over: without a worker it runs, and
    // its completion pumps again, inside submit.
    downloads.reading = true;
    p.reading = true;
    const PeerRef to = p.to;
    auto job = [&storage, &downloads, to, request]() -> Storage::Completion {
        std::string problem;
        Bytes message = request.refused ? encode(FileData{1, request.name, {}}) : request.read(request.name, problem);
        return [&storage, &downloads, to, message = std::move(message), problem = std::move(problem)]() mutable {
            if (!problem.empty()) logError(problem);
            downloads.reading = false;
            // The same connection only: ENet hands a peer record that was let
            // go to the next connection.
            auto it = downloads.peers.find(to.peer);
            if (it != downloads.peers.end() && it->second.to.connection == to.connection) {
                it->second.reading = false;
                send(downloads, to.peer, std::move(message));
            }
            pumpDownloads(storage, downloads);
        };
    };
    if (storage.submit(std::move(job), 0, to.connection)) return;
    // The peer's share of the worker is taken (its reports): the request
    // goes back first in line and is tried again at the next pump.
    downloads.reading = false;
    p.reading = false;
    if (!p.waiting.empty()) downloads.turns.pop_back();
    p.waiting.push_front(std::move(request));
    downloads.turns.push_front(peer);
}

void forgetDownloads(Downloads& downloads, ENetPeer* peer) {
    auto it = downloads.peers.find(peer);
    if (it == downloads.peers.end()) return;
    giveBack(downloads, it->second);
    // A read under way finishes into nothing: its completion finds no peer.
    downloads.peers.erase(it);
    downloads.turns.erase(std::remove(downloads.turns.begin(), downloads.turns.end(), peer), downloads.turns.end());
}

std::vector<ENetPeer*> checkDownloads(Downloads& downloads, std::uint64_t nowMicros) {
    std::vector<ENetPeer*> stalled;
    for (auto& [peer, p] : downloads.peers) {
        if (p.inFlight == 0) continue;
        const std::uint64_t left = queuedForSending(peer);
        if (p.progressMicros == 0 || left < p.queuedLeft) p.progressMicros = nowMicros;
        p.queuedLeft = left;
        const bool idle = nowMicros - p.progressMicros >= downloads.parkMicros;
        if (idle != p.parked) {
            (p.parked ? downloads.parked : downloads.inFlight) -= p.inFlight;
            (idle ? downloads.parked : downloads.inFlight) += p.inFlight;
            p.parked = idle;
        }
        if (downloads.stallMicros != 0 && nowMicros - p.progressMicros > downloads.stallMicros) {
            stalled.push_back(peer);
            p.progressMicros = nowMicros;  // named once; it is cut off now
        }
    }
    return stalled;
}
