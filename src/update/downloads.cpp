#include "update/downloads.h"

#include <set>

#include "protocol/messages.h"

void queueFileData(Downloads& downloads, PeerRef to, Bytes message) {
    downloads.waiting.push_back(Downloads::Waiting{to, std::move(message)});
    pumpDownloads(downloads);
}

void pumpDownloads(Downloads& downloads) {
    if (downloads.waiting.empty()) return;
    // A peer whose first waiting reply cannot go yet keeps its later ones
    // waiting too, so each peer gets its files in the order it asked.
    std::set<const ENetPeer*> held;
    for (auto it = downloads.waiting.begin(); it != downloads.waiting.end();) {
        ENetPeer* peer = stillConnected(it->to);
        if (peer == nullptr) {
            it = downloads.waiting.erase(it);
            continue;
        }
        const std::size_t size = it->message.size();
        const bool fits = downloads.inFlight == 0 || downloads.inFlight + size <= Downloads::kMaxInFlight;
        if (!fits || held.count(peer) != 0) {
            held.insert(peer);
            ++it;
            continue;
        }
        Bytes message = std::move(it->message);
        it = downloads.waiting.erase(it);
        downloads.inFlight += size;
        sendOwned(peer, kFileUpdateChannel, std::move(message), [&downloads, size] { downloads.inFlight -= size; });
    }
}
