#pragma once
// Client reports filed under the data root: feedback and determinism tests.
// Each report becomes a set of files sharing one base name (the Unix time of
// its arrival) and is answered with exactly one ReportReply.

#include <string>
#include <vector>

#include <enet/enet.h>

#include "protocol/messages.h"

// The base name (without suffix) under which a report with these file
// suffixes is filed: stem when none of stem + suffix exists, else the first
// of stem + "_1", stem + "_2", ... for which none does.
std::string chooseReportBase(const std::string& stem, const std::vector<std::string>& suffixes);

void sendReportReply(ENetPeer* peer, std::string text);

// File the report under server_data/feedback/ (or server_data/test_determinism/)
// and answer the peer with one ReportReply.
void writeFeedbackReport(ENetPeer* peer, const FeedbackReport& report);
void writeDeterminismTestReport(ENetPeer* peer, const DeterminismTestReport& report);
