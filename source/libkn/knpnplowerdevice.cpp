// The lower device of a Plug and Play stack.
#include "knpnplowerdevice.h"

#include "kntrace.h"

// Contract: any IRQL.
KnPnPLowerDevice::KnPnPLowerDevice() : mPhysicalDeviceObject(NULL) {}

// Contract: PASSIVE_LEVEL; mPhysicalDeviceObject already set back to NULL.
KnPnPLowerDevice::~KnPnPLowerDevice()
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(mPhysicalDeviceObject==NULL);
}
