// The interface records of the selected configuration: removing and freeing
// them, and finding an interface or a pipe among them by number, setting,
// class, type, direction or endpoint address.
#include "knusbconfiguration.h"

#include "kntrace.h"

namespace {

// True when the criterion is negative (any) or equals the value.
bool Matches(LONG criterion, ULONG value)
{
    return criterion < 0 || (ULONG)criterion == value;
}

}  // namespace

// Contract: PASSIVE_LEVEL; the owner serializes.
bool KnUsbConfiguration::RemoveInterfaceInfo(UCHAR interfaceNumber)
{
    IRQL_EQ_PASSIVE();
    InterfaceInfo* ii = FindInterfaceInfo(interfaceNumber);
    if (ii == NULL) {
        return false;
    }
    mInterfaceInfoList.Remove(ii);
    InterfaceInfo::Destroy(ii);
    return true;
}

// Contract: PASSIVE_LEVEL; the owner serializes.
void KnUsbConfiguration::FreeInterfaceInfos()
{
    IRQL_EQ_PASSIVE();
    InterfaceInfo* ii;
    while ((ii = mInterfaceInfoList.RemoveHead()) != NULL) {
        InterfaceInfo::Destroy(ii);
    }
}

// Contract: IRQL <= DISPATCH_LEVEL; the owner serializes.
InterfaceInfo* KnUsbConfiguration::FindInterfaceInfo(UCHAR interfaceNumber) const
{
    for (InterfaceInfo* ii = mInterfaceInfoList.GetHead(); ii != NULL; ii = mInterfaceInfoList.GetNext(ii)) {
        if (ii->mInterfaceInformation->InterfaceNumber == interfaceNumber) {
            return ii;
        }
    }
    return NULL;
}

// Contract: IRQL <= DISPATCH_LEVEL; no selection at the same time.
PUSBD_INTERFACE_INFORMATION KnUsbConfiguration::LookupInterfaceInfo(LONG interfaceNumber, LONG alternateSetting,
                                                                    LONG interfaceClass, LONG interfaceSubClass,
                                                                    LONG interfaceProtocol) const
{
    IRQL_LTEQ_DISPATCH();
    for (InterfaceInfo* ii = mInterfaceInfoList.GetHead(); ii != NULL; ii = mInterfaceInfoList.GetNext(ii)) {
        PUSBD_INTERFACE_INFORMATION info = ii->mInterfaceInformation;
        if (Matches(interfaceNumber, info->InterfaceNumber) && Matches(alternateSetting, info->AlternateSetting) &&
            Matches(interfaceClass, info->Class) && Matches(interfaceSubClass, info->SubClass) &&
            Matches(interfaceProtocol, info->Protocol)) {
            return info;
        }
    }
    return NULL;
}

// Contract: IRQL <= DISPATCH_LEVEL; no selection at the same time.
PUSBD_PIPE_INFORMATION KnUsbConfiguration::LookupPipeInfoByTypeAndDirection(ULONG pipeType, bool in,
                                                                            LONG interfaceNumber,
                                                                            LONG alternateSetting) const
{
    IRQL_LTEQ_DISPATCH();
    for (InterfaceInfo* ii = mInterfaceInfoList.GetHead(); ii != NULL; ii = mInterfaceInfoList.GetNext(ii)) {
        PUSBD_INTERFACE_INFORMATION info = ii->mInterfaceInformation;
        if (!Matches(interfaceNumber, info->InterfaceNumber) || !Matches(alternateSetting, info->AlternateSetting)) {
            continue;
        }
        for (ULONG i = 0; i < info->NumberOfPipes; i++) {
            PUSBD_PIPE_INFORMATION pipe = &info->Pipes[i];
            bool pipeIn = (pipe->EndpointAddress & USB_ENDPOINT_DIRECTION_MASK) != 0;
            if ((ULONG)pipe->PipeType == pipeType && pipeIn == in) {
                return pipe;
            }
        }
    }
    return NULL;
}

// Contract: IRQL <= DISPATCH_LEVEL; no selection at the same time.
PUSBD_PIPE_INFORMATION KnUsbConfiguration::LookupPipeInfoByAddress(UCHAR endpointAddress) const
{
    IRQL_LTEQ_DISPATCH();
    for (InterfaceInfo* ii = mInterfaceInfoList.GetHead(); ii != NULL; ii = mInterfaceInfoList.GetNext(ii)) {
        PUSBD_INTERFACE_INFORMATION info = ii->mInterfaceInformation;
        for (ULONG i = 0; i < info->NumberOfPipes; i++) {
            if (info->Pipes[i].EndpointAddress == endpointAddress) {
                return &info->Pipes[i];
            }
        }
    }
    return NULL;
}
