-- On every node: the lines of the three record files, one row a line.
--
-- A line comes many times: every export of a box brings its whole current file and the rotated one, and a collector
-- that was killed before it had its answer sends its batch again.  Rows with the same sorting key are the same line,
-- and merges keep one of them.  Until they have, queries have to say FINAL, or be of a kind that a repetition does
-- not change, such as max().
--
-- What is counted of an enforced flow is counted from its Start: Packets and Bytes of its last line are the flow's,
-- and a sum over lines is not.
--
-- Partitions are months of the time that orders the lines, so that what is old is dropped by the file:
-- drop-older in this folder.

CREATE DATABASE IF NOT EXISTS korvid;

CREATE TABLE IF NOT EXISTS korvid.enforcement_local
(
    Box String,                  -- folder below the spool
    IntEnd DateTime('UTC'),      -- when the line was written
    Flow UInt64,                 -- hash of addresses, ports, protocol and Start: the flow within its box
    Start DateTime('UTC'),
    IntStart DateTime('UTC'),
    Ended UInt8,                 -- 1: the kernel had aged the flow; End is IntEnd then
    IpA FixedString(16),         -- IPv4 as ::ffff:a.b.c.d
    IpB FixedString(16),
    PortA UInt16,
    PortB UInt16,
    Proto Enum8('other' = 0, 'TCP' = 6, 'UDP' = 17),
    Application String,          -- '-': none, as in the file
    AppGroup String,
    Profile String,
    Packets UInt64,
    Bytes UInt64,
    Nth UInt32                   -- of equal lines in one file, from 0
)
ENGINE = ReplacingMergeTree
PARTITION BY toYYYYMM(IntEnd)
PRIMARY KEY (Box, IntEnd)
ORDER BY (Box, IntEnd, Flow, Bytes, Packets, Ended, IntStart, Application, AppGroup, Profile, Nth);

CREATE TABLE IF NOT EXISTS korvid.monitoring_local
(
    Box String,
    Time DateTime('UTC'),        -- when the flow was classified
    IpA FixedString(16),
    IpB FixedString(16),
    PortA UInt16,
    PortB UInt16,
    Proto Enum8('other' = 0, 'TCP' = 6, 'UDP' = 17),
    Application String,
    AppGroup String,
    Nth UInt32
)
ENGINE = ReplacingMergeTree
PARTITION BY toYYYYMM(Time)
PRIMARY KEY (Box, Time)
ORDER BY (Box, Time, IpA, IpB, PortA, PortB, Proto, Application, AppGroup, Nth);

CREATE TABLE IF NOT EXISTS korvid.applications_local
(
    Box String,
    Hour DateTime('UTC'),
    Application String,
    AppGroup String,
    Flows UInt32,                -- monitored flows of that hour
    Nth UInt32
)
ENGINE = ReplacingMergeTree
PARTITION BY toYYYYMM(Hour)
ORDER BY (Box, Hour, Application, AppGroup, Flows, Nth);
