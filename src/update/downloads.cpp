#include "update/downloads.h"

#include <utility>

#include "log/log.h"
#include "protocol/messages.h"

void queueFileRequest(Storage& storage, Downloads& downloads, PeerRef to, std::string name, bool refused,
                      FileReader read) {
    downloads.waiting.push_back(Downloads::Request{to, std::move(name), refused, read});
    pumpDownloads(storage, downloads);
}

namespace {
bool fits(const Downloads& d, std::size_t size) {
    return d.inFlight == 0 || d.maxInFlight == 0 || d.inFlight + size <= d.maxInFlight;
}
}  // namespace

void pumpDownloads(Storage& storage, Downloads& downloads) {
    if (!downloads.ready.empty() && fits(downloads, downloads.ready.size())) {
        const std::size_t size = downloads.ready.size();
        Bytes message = std::exchange(downloads.ready, {});
        downloads.reading = false;
        if (ENetPeer* peer = stillConnected(downloads.readyFor)) {
            downloads.inFlight += size;
            sendOwned(peer, kFileUpdateChannel, std::move(message), [&downloads, size] { downloads.inFlight -= size; });
        }
    }
    // Files are read one at a time, in the order they were asked for, so
    // each peer gets its files in that order.
    while (!downloads.reading && !downloads.waiting.empty()) {
        Downloads::Request request = std::move(downloads.waiting.front());
        downloads.waiting.pop_front();
        if (stillConnected(request.to) == nullptr) continue;
        downloads.reading = true;
        storage.submit([&storage, &downloads, request = std::move(request)]() -> Storage::Completion {
            std::string problem;
            Bytes message = request.refused ? encode(FileData{1, request.name, {}}) : request.read(request.name, problem);
            return [&storage, &downloads, to = request.to, message = std::move(message),
                    problem = std::move(problem)]() mutable {
                if (!problem.empty()) logError(problem);
                downloads.ready = std::move(message);
                downloads.readyFor = to;
                pumpDownloads(storage, downloads);
            };
        });
    }
}
