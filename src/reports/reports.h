#pragma once
// Client reports filed under the data root: feedback and determinism tests.
// Each report becomes a set of files sharing one base name (the Unix time of
// its arrival) and is answered with exactly one ReportReply.

#include <string>
#include <vector>

#include <enet/enet.h>

#include "platform/storage.h"
#include "protocol/messages.h"
#include "protocol/send.h"

// The base name (without suffix) under which a report with these file
// suffixes is filed: stem when none of stem + suffix exists, else the first
// of stem + "_1", stem + "_2", ... for which none does.
std::string chooseReportBase(const std::string& stem, const std::vector<std::string>& suffixes);

// Files the report under stem (a base name beside others of the same second
// gets "_1", "_2", ...) and returns the text of its one reply.
std::string writeFeedbackReport(const std::string& stem, const FeedbackReport& report);
std::string writeDeterminismTestReport(const std::string& stem, const DeterminismTestReport& report);

// packet is a report that decodes; it is filed under server_data/feedback/
// (or server_data/test_determinism/) by the storage worker, and the peer, if
// still connected, gets the one ReportReply. False when the peer's share of
// the worker is spent: nothing is written and the reply says so at once.
bool fileFeedbackReport(Storage& storage, ENetPeer* peer, KeptBytes packet);
bool fileDeterminismTestReport(Storage& storage, ENetPeer* peer, KeptBytes packet);
// The reply of a report that could not be written, for one that is not
// written at all; it keeps its place among the peer's other replies while the
// peer has room in its share of the worker.
void refuseReport(Storage& storage, ENetPeer* peer, bool feedback);
