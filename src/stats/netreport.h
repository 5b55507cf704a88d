#pragma once
// The operator's reports: traffic since start, and the lag scores per room.

struct Server;

void printNetworkReport(Server& server);
void printLoadReport(Server& server);
