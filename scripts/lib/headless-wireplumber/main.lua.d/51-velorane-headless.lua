-- No hardware to watch and no session bus: the monitors, ALSA device
-- reservation and the Flatpak portal stay off.
alsa_monitor.enabled = false
alsa_monitor.properties["alsa.reserve"] = false
v4l2_monitor.enabled = false
libcamera_monitor.enabled = false
default_access.properties["enable-flatpak-portal"] = false
