#pragma once

// The text umockdev_testbed_add_from_string takes for one USB device on bus
// 1 with the given number: its sysfs attributes, its uevent properties and
// its raw descriptors (device, configuration, interface 0 with a bulk OUT
// endpoint 0x02 and a bulk IN endpoint 0x81, no strings). It has no device
// node line: the caller makes the node itself.

#include <cstdint>
#include <string>

namespace simcommon {

std::string UsbDeviceDescription(uint16_t vendor, uint16_t product, int number);

// Where the device's node is: "bus/usb/001/NNN" below the testbed's dev
// folder, and below /dev for the program under test.
std::string UsbDeviceNode(int number);

} // namespace simcommon
