#include "Clients/Conference/Linux/XcbRandrConnection.h"

#include <sys/uio.h>
#include <xcb/randr.h>
#include <xcb/xcb.h>
#include <xcb/xcbext.h>

#include <cmath>
#include <cstdlib>
#include <set>

namespace quorvan::velorane::relay {

namespace {

template <typename T> using XcbReply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T> XcbReply<T> Own(T* reply)
{
    return XcbReply<T>(reply, &std::free);
}

constexpr uint32_t kRandrMajor = 1;
constexpr uint32_t kRandrMinor = 5;
// 256 bytes, the base block and one extension, in 32-bit units.
constexpr uint32_t kEdidLongs = 64;

const char* ErrorName(uint8_t code)
{
    switch (code) {
    case XCB_VALUE:
        return "BadValue";
    case XCB_MATCH:
        return "BadMatch";
    case XCB_ATOM:
        return "BadAtom";
    case XCB_NAME:
        return "BadName";
    case XCB_ACCESS:
        return "BadAccess";
    case XCB_ALLOC:
        return "BadAlloc";
    default:
        return "X error";
    }
}

// Waits for a request's outcome; false with its text on an error.
bool Check(xcb_connection_t* connection, xcb_void_cookie_t cookie, const char* what,
           std::string* error)
{
    XcbReply<xcb_generic_error_t> failure = Own(xcb_request_check(connection, cookie));
    if (!failure) {
        if (xcb_connection_has_error(connection)) {
            *error = std::string(what) + ": the X connection is gone";
            return false;
        }
        return true;
    }
    *error = std::string(what) + ": " + ErrorName(failure->error_code) + " (" +
             std::to_string(failure->error_code) + ")";
    return false;
}

} // namespace

std::unique_ptr<XcbRandrConnection> XcbRandrConnection::Open(const char* displayName,
                                                             std::string* whyNot)
{
    int screenNumber = 0;
    xcb_connection_t* connection = xcb_connect(displayName, &screenNumber);
    if (xcb_connection_has_error(connection)) {
        xcb_disconnect(connection);
        *whyNot = "can't connect to the X display";
        return nullptr;
    }
    std::unique_ptr<XcbRandrConnection> result(new XcbRandrConnection(connection, screenNumber));
    if (result->m_root == 0) {
        *whyNot = "the X display has no screen " + std::to_string(screenNumber);
        return nullptr;
    }
    const xcb_query_extension_reply_t* extension =
        xcb_get_extension_data(connection, &xcb_randr_id);
    if (!extension || !extension->present) {
        *whyNot = "the X server has no RandR";
        return nullptr;
    }
    result->m_randrFirstEvent = extension->first_event;
    auto version = Own(xcb_randr_query_version_reply(
        connection, xcb_randr_query_version(connection, kRandrMajor, kRandrMinor), nullptr));
    if (!version || version->major_version < kRandrMajor ||
        (version->major_version == kRandrMajor && version->minor_version < kRandrMinor)) {
        *whyNot = "the X server's RandR is older than 1.5";
        return nullptr;
    }
    return result;
}

XcbRandrConnection::XcbRandrConnection(xcb_connection_t* connection, int screenNumber)
    : m_connection(connection)
{
    xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int index = 0; screens.rem > 0; ++index, xcb_screen_next(&screens)) {
        if (index == screenNumber) {
            m_root = screens.data->root;
            m_setupWidth = screens.data->width_in_pixels;
            m_setupHeight = screens.data->height_in_pixels;
            m_setupWidthMm = screens.data->width_in_millimeters;
            m_setupHeightMm = screens.data->height_in_millimeters;
            break;
        }
    }
}

XcbRandrConnection::~XcbRandrConnection()
{
    xcb_disconnect(m_connection);
}

bool XcbRandrConnection::Broken() const
{
    return xcb_connection_has_error(m_connection) != 0;
}

int XcbRandrConnection::FileDescriptor() const
{
    return xcb_get_file_descriptor(m_connection);
}

bool XcbRandrConnection::WatchChanges(std::string* error)
{
    const uint16_t randrEvents = XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE |
                                 XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE |
                                 XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE;
    if (!Check(m_connection, xcb_randr_select_input_checked(m_connection, m_root, randrEvents),
               "RRSelectInput", error)) {
        return false;
    }
    // This connection's own event mask on the root: Qt's is its own.
    const uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    return Check(
        m_connection,
        xcb_change_window_attributes_checked(m_connection, m_root, XCB_CW_EVENT_MASK, &mask),
        "ChangeWindowAttributes", error);
}

bool XcbRandrConnection::QueryMonitors(MonitorList* monitors)
{
    monitors->clear();
    auto reply = Own(xcb_randr_get_monitors_reply(
        m_connection, xcb_randr_get_monitors(m_connection, m_root, 1), nullptr));
    if (!reply) {
        return false;
    }
    for (auto it = xcb_randr_get_monitors_monitors_iterator(reply.get()); it.rem > 0;
         xcb_randr_monitor_info_next(&it)) {
        const xcb_randr_monitor_info_t* info = it.data;
        tMonitor monitor;
        monitor.id = info->name;
        monitor.x = info->x;
        monitor.y = info->y;
        monitor.width = info->width;
        monitor.height = info->height;
        monitor.widthMm = info->width_in_millimeters;
        monitor.heightMm = info->height_in_millimeters;
        monitor.primary = info->primary != 0;
        monitor.automatic = info->automatic != 0;
        const xcb_randr_output_t* outputs = xcb_randr_monitor_info_outputs(info);
        const int count = xcb_randr_monitor_info_outputs_length(info);
        monitor.outputs.assign(outputs, outputs + count);
        monitors->push_back(std::move(monitor));
    }
    return true;
}

std::string XcbRandrConnection::AtomName(uint32_t atom)
{
    const auto known = m_atomNames.find(atom);
    if (known != m_atomNames.end()) {
        return known->second;
    }
    auto reply =
        Own(xcb_get_atom_name_reply(m_connection, xcb_get_atom_name(m_connection, atom), nullptr));
    if (!reply) {
        return std::string();
    }
    std::string name(xcb_get_atom_name_name(reply.get()),
                     static_cast<size_t>(xcb_get_atom_name_name_length(reply.get())));
    // Atoms are never freed by the server, so a name once read stays true.
    m_atomNames[atom] = name;
    return name;
}

std::vector<uint8_t> XcbRandrConnection::OutputEdid(uint32_t output)
{
    if (!m_edidAtomLooked) {
        auto atom = Own(xcb_intern_atom_reply(
            m_connection, xcb_intern_atom(m_connection, 1, 4, "EDID"), nullptr));
        m_edidAtom = atom ? atom->atom : 0;
        m_edidAtomLooked = atom != nullptr;
    }
    if (m_edidAtom == 0) {
        return {};
    }
    auto reply = Own(xcb_randr_get_output_property_reply(
        m_connection,
        xcb_randr_get_output_property(m_connection, output, m_edidAtom, XCB_ATOM_ANY, 0, kEdidLongs,
                                      0, 0),
        nullptr));
    if (!reply || reply->format != 8) {
        return {};
    }
    const uint8_t* data = xcb_randr_get_output_property_data(reply.get());
    const int length = xcb_randr_get_output_property_data_length(reply.get());
    return std::vector<uint8_t>(data, data + (length > 0 ? length : 0));
}

bool XcbRandrConnection::QueryScreenSize(ScreenSize* size)
{
    auto geometry =
        Own(xcb_get_geometry_reply(m_connection, xcb_get_geometry(m_connection, m_root), nullptr));
    auto range = Own(xcb_randr_get_screen_size_range_reply(
        m_connection, xcb_randr_get_screen_size_range(m_connection, m_root), nullptr));
    if (!geometry || !range) {
        return false;
    }
    size->width = geometry->width;
    size->height = geometry->height;
    size->maxWidth = range->max_width;
    size->maxHeight = range->max_height;
    // The resolution the screen had when this connection opened: asking
    // RandR for the physical size would probe every output.
    const double mmPerPixelX = m_setupWidth > 0 ? double(m_setupWidthMm) / m_setupWidth : 25.4 / 96;
    const double mmPerPixelY =
        m_setupHeight > 0 ? double(m_setupHeightMm) / m_setupHeight : 25.4 / 96;
    size->widthMm = static_cast<uint32_t>(std::lround(size->width * mmPerPixelX));
    size->heightMm = static_cast<uint32_t>(std::lround(size->height * mmPerPixelY));
    return true;
}

bool XcbRandrConnection::SetScreenSize(const ScreenSize& now, uint32_t width, uint32_t height,
                                       std::string* error)
{
    const auto scale = [](uint32_t mm, uint32_t from, uint32_t to) {
        return from == 0 ? to : static_cast<uint32_t>(std::lround(double(mm) * to / from));
    };
    return Check(m_connection,
                 xcb_randr_set_screen_size_checked(
                     m_connection, m_root, static_cast<uint16_t>(width),
                     static_cast<uint16_t>(height), scale(now.widthMm, now.width, width),
                     scale(now.heightMm, now.height, height)),
                 "RRSetScreenSize", error);
}

bool XcbRandrConnection::MoveOutputs(const std::vector<uint32_t>& outputs, int32_t dx, int32_t dy,
                                     std::string* error)
{
    auto resources = Own(xcb_randr_get_screen_resources_current_reply(
        m_connection, xcb_randr_get_screen_resources_current(m_connection, m_root), nullptr));
    if (!resources) {
        *error = "RRGetScreenResourcesCurrent failed";
        return false;
    }
    std::set<xcb_randr_crtc_t> crtcs;
    for (const uint32_t output : outputs) {
        auto info = Own(xcb_randr_get_output_info_reply(
            m_connection,
            xcb_randr_get_output_info(m_connection, output, resources->config_timestamp), nullptr));
        if (info && info->crtc != 0) {
            crtcs.insert(info->crtc);
        }
    }
    for (const xcb_randr_crtc_t crtc : crtcs) {
        auto info = Own(xcb_randr_get_crtc_info_reply(
            m_connection, xcb_randr_get_crtc_info(m_connection, crtc, resources->config_timestamp),
            nullptr));
        if (!info) {
            *error = "RRGetCrtcInfo failed";
            return false;
        }
        auto reply = Own(xcb_randr_set_crtc_config_reply(
            m_connection,
            xcb_randr_set_crtc_config(
                m_connection, crtc, XCB_CURRENT_TIME, resources->config_timestamp,
                static_cast<int16_t>(info->x + dx), static_cast<int16_t>(info->y + dy), info->mode,
                info->rotation,
                static_cast<uint32_t>(xcb_randr_get_crtc_info_outputs_length(info.get())),
                xcb_randr_get_crtc_info_outputs(info.get())),
            nullptr));
        if (!reply || reply->status != XCB_RANDR_SET_CONFIG_SUCCESS) {
            *error = "RRSetCrtcConfig failed" +
                     (reply ? " with status " + std::to_string(reply->status) : std::string());
            return false;
        }
    }
    return true;
}

bool XcbRandrConnection::DeleteMonitor(uint32_t name, std::string* error)
{
    return Check(m_connection, xcb_randr_delete_monitor_checked(m_connection, m_root, name),
                 "RRDeleteMonitor", error);
}

bool XcbRandrConnection::SetMonitor(const tMonitor& monitor, std::string* error)
{
    xcb_randr_monitor_info_t info{};
    info.name = monitor.id;
    info.primary = monitor.primary ? 1 : 0;
    info.automatic = 0;
    info.nOutput = 0;
    info.x = static_cast<int16_t>(monitor.x);
    info.y = static_cast<int16_t>(monitor.y);
    info.width = static_cast<uint16_t>(monitor.width);
    info.height = static_cast<uint16_t>(monitor.height);
    info.width_in_millimeters = monitor.widthMm;
    info.height_in_millimeters = monitor.heightMm;
    // Sent by hand: libxcb-randr 1.15's xcb_randr_set_monitor and its
    // checked twin leave the padding part after the monitor unset, so the
    // request length comes from whatever is on the stack, and a huge one
    // makes xcb close the connection. Here every part is set.
    xcb_randr_set_monitor_request_t request{};
    request.window = m_root;
    struct iovec parts[6] = {};
    parts[2].iov_base = &request;
    parts[2].iov_len = sizeof(request);
    parts[3].iov_base = nullptr;
    parts[3].iov_len = -parts[2].iov_len & 3;
    parts[4].iov_base = &info;
    parts[4].iov_len = static_cast<size_t>(xcb_randr_monitor_info_sizeof(&info));
    parts[5].iov_base = nullptr;
    parts[5].iov_len = -parts[4].iov_len & 3;
    static const xcb_protocol_request_t kSetMonitor = {4, &xcb_randr_id, XCB_RANDR_SET_MONITOR, 1};
    xcb_void_cookie_t cookie{};
    cookie.sequence = xcb_send_request(m_connection, XCB_REQUEST_CHECKED, parts + 2, &kSetMonitor);
    return Check(m_connection, cookie, "RRSetMonitor", error);
}

void XcbRandrConnection::Flush()
{
    xcb_flush(m_connection);
}

} // namespace quorvan::velorane::relay
