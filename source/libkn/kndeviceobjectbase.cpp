// Holder of a device object.
#include "kndeviceobjectbase.h"

#include "kntrace.h"

// Contract: any IRQL.
KnDeviceObjectBase::KnDeviceObjectBase() : mDeviceObject(NULL) {}

// Contract: any IRQL; mDeviceObject already set back to NULL by the owner.
KnDeviceObjectBase::~KnDeviceObjectBase()
{
    KN_ASSERT(NULL==mDeviceObject);
}

// Contract: any IRQL.
UCHAR KnDeviceObjectBase::GetStackSize() const
{
    KN_ASSERT(mDeviceObject!=NULL);
    if (mDeviceObject == NULL) {
        return 0;
    }
    return (UCHAR)mDeviceObject->StackSize;
}
