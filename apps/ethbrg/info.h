// `ethbrg info`: every supported OID of the adapter with its decoded value.
#pragma once

#include "host.h"

namespace ethbrg {

struct InfoOptions {
    CommonOptions common;
    bool params = false;  // list the adapter parameters instead
};

int RunInfo(const InfoOptions& options);

}  // namespace ethbrg
