#include "Tools/Common/UsbDeviceDescription.h"

#include <cstdio>

namespace simcommon {

namespace {

std::string HexByte(unsigned value)
{
    char text[3];
    std::snprintf(text, sizeof(text), "%02x", value & 0xFFu);
    return text;
}

// Device, configuration, interface and the two bulk endpoints, with no
// string descriptors (so nothing asks for them).
std::string Descriptors(uint16_t vendor, uint16_t product)
{
    // Device: USB 2.0, packet size 64, the ids, release 1.00, no strings,
    // one configuration.
    std::string hex = "1201000200000040";
    hex += HexByte(vendor) + HexByte(vendor >> 8u) + HexByte(product) + HexByte(product >> 8u);
    hex += "0001000000"
           "01";
    // Configuration 1 of 32 bytes in all, one interface, bus powered.
    hex += "090220000101008032";
    // Interface 0, alternate 0, two endpoints, vendor class.
    hex += "09040000"
           "02ff000000";
    // Bulk OUT 0x02 and bulk IN 0x81, 512 bytes.
    hex += "07050202000200";
    hex += "07058102000200";
    return hex;
}

} // namespace

std::string UsbDeviceNode(int number)
{
    char node[32];
    std::snprintf(node, sizeof(node), "bus/usb/001/%03d", number);
    return node;
}

std::string UsbDeviceDescription(uint16_t vendor, uint16_t product, int number)
{
    // Each attribute value ends with its line feed, as sysfs gives it.
    char description[2048];
    std::snprintf(description, sizeof(description),
                  "P: /devices/usb1/1-%d\n"
                  "E: SUBSYSTEM=usb\n"
                  "E: DEVTYPE=usb_device\n"
                  "E: DEVNAME=/dev/%s\n"
                  "E: BUSNUM=001\n"
                  "E: DEVNUM=%03d\n"
                  "A: dev=189:%d\\n\n"
                  "A: busnum=1\\n\n"
                  "A: devnum=%d\\n\n"
                  "A: speed=480\\n\n"
                  "A: bConfigurationValue=1\\n\n"
                  "H: descriptors=%s\n",
                  number, UsbDeviceNode(number).c_str(), number, number, number,
                  Descriptors(vendor, product).c_str());
    return description;
}

} // namespace simcommon
