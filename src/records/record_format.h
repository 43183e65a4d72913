// The three record files as their readers meet them: file names and header lines.  record_line.h reads the
// lines.
#pragma once
#include <cstddef>

inline constexpr size_t kRecordLineSize = 1024;  // bytes of a line at most, its newline included

// Bytes of names at most.
inline constexpr size_t kRecordAppSize = 32;
inline constexpr size_t kRecordGroupSize = 40;
inline constexpr size_t kRecordProfileSize = 32;

// File names without ".csv"; a rotated file's name goes on with "_old".
inline constexpr char kEnfRecordsName[] = "appmon_enforcement_flow_records";
inline constexpr char kMonRecordsName[] = "appmon_monitor_flow_records";
inline constexpr char kAppRecordsName[] = "appmon_monitoring_app_records";

// First lines, without their newline.
inline constexpr char kEnfRecordsHeader[] =
    "IpAddrType,IpA,IpB,L4portA,L4portB,Proto,Application,Application-Group,MacA,KolNameA,MacB,KolNameB,"
    "pktCount,byteCount,Start,End,IntStart,IntEnd";
inline constexpr char kMonRecordsHeader[] =
    "IpAddrType,IpA,IpB,L4portA,L4portB,Proto,Application,Application-Group,Time";
inline constexpr char kAppRecordsHeader[] =
    "Application,Application-Group,Utcinterval,MaFlowMin,MaFlowMax,MaFlowAvg,MaFlowTotal";
