// Holder of the device object to which a driver object sends its requests.
//
// The holder does not own the device object: whoever sets it sets it back to
// NULL before the holder is destroyed.
#pragma once

#include <ntddk.h>

class KnDeviceObjectBase {
public:
    // Contract: any IRQL. No device object.
    KnDeviceObjectBase();
    // Contract: any IRQL. The device object must have been set back to NULL.
    virtual ~KnDeviceObjectBase();
    KnDeviceObjectBase(const KnDeviceObjectBase&) = delete;
    KnDeviceObjectBase& operator=(const KnDeviceObjectBase&) = delete;

    // Contract: any IRQL; the caller serializes against users of the object.
    void SetDeviceObject(PDEVICE_OBJECT deviceObject) { mDeviceObject = deviceObject; }
    // Contract: any IRQL.
    PDEVICE_OBJECT GetDeviceObject() const { return mDeviceObject; }

    // Contract: any IRQL; a device object is set. The number of stack
    // locations that IRPs for the device need.
    UCHAR GetStackSize() const;

protected:
    // ---- target ----
    PDEVICE_OBJECT mDeviceObject;  // not owned; NULL until set
};
