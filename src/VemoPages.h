// What the pages of the device's web interface share: their addresses, and the option that one page
// shows and another stores.
#pragma once

// Addresses, as links and forms name them.
constexpr char HOME_PAGE[] = "/index.html";
constexpr char DEVICE_INFORMATION_PAGE[] = "channeldeviceconfig.cgi";
constexpr char SET_OPTION_PAGE[] = "setobdconf.cgi";
constexpr char REBOOT_PAGE[] = "reboot.cgi";

// The option: its form field, and the file, section and key where the diagnostic runtime reads it.
constexpr char OPTION_FIELD[] = "CanDetectTimeout";
constexpr char SETTINGS_FILE[] = "/app/tarn-belox/runvex/obd.conf";
constexpr char OPTION_SECTION[] = "SETTINGS";
constexpr char OPTION_KEY[] = "VEMODCanDetectTimeout";
