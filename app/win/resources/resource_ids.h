// Resource ids of velphone.exe, shared by velphone.rc and the code that loads
// them (LoadIconW(instance, MAKEINTRESOURCEW(IDI_VELPHONE))).
#pragma once

// The application icon. Explorer shows an executable's lowest-numbered icon,
// so this one is 1.
#define IDI_VELPHONE 1
