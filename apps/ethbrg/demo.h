// `ethbrg demo`: the driver on the built-in simulated device, driven by a
// small protocol of the program's own: ARP and ping to the device's network
// side, then numbered frames both ways; a live status line and a summary.
#pragma once

#include "host.h"

#include <string>

namespace ethbrg {

struct DemoOptions {
    CommonOptions common;
    double seconds = 5;
    std::string frameSize = "mixed";  // "mixed" or a length from 60 to 1514
    std::string json;                 // summary as JSON into this file ("-": standard output)
    bool quiet = false;               // no status line
};

// Returns the exit status: 0 only if nothing was lost or reordered, the
// device saw no violation and the ledger is empty.
int RunDemo(const DemoOptions& options);

}  // namespace ethbrg
