// The USB bus driver interface as a function driver includes it.
#pragma once

#include <usb.h>
#include <usbioctl.h>
