// The lower device of a Plug and Play stack: the next lower device object,
// to which requests go, and the physical device object of the stack.
#pragma once

#include <ntddk.h>

#include "kntargetdevice.h"

class KnPnPLowerDevice : public KnTargetDevice {
public:
    // Contract: any IRQL.
    KnPnPLowerDevice();
    // Contract: PASSIVE_LEVEL. Both device objects must have been set back
    // to NULL.
    ~KnPnPLowerDevice() override;

    // Contract: any IRQL; the caller serializes against users of the object.
    void SetPhysicalDeviceObject(PDEVICE_OBJECT physicalDeviceObject) { mPhysicalDeviceObject = physicalDeviceObject; }
    // Contract: any IRQL.
    PDEVICE_OBJECT GetPhysicalDeviceObject() const { return mPhysicalDeviceObject; }

protected:
    // ---- stack ----
    PDEVICE_OBJECT mPhysicalDeviceObject;  // not owned; NULL until set
};
