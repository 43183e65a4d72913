// The places of the switch's file system that several files share.
#pragma once

inline constexpr char kLogPath[] = "/var/log/dpi.log";
inline constexpr char kRequestLogPath[] = "/var/log/ubusDpi.log";
inline constexpr char kConfigPath[] = "/var/config/dpi.conf";
inline constexpr char kFlash[] = "/flash";
inline constexpr char kKitName[] = "HAppSig.upgrade_kit";
inline constexpr char kKitPath[] = "/flash/HAppSig.upgrade_kit";
