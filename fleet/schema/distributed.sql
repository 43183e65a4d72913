-- On every node that collectors and reports ask: the tables over all shards of the cluster "korvid" (cluster.xml).
-- A box's lines are on one shard, whichever node takes them: repetitions meet there.

CREATE TABLE IF NOT EXISTS korvid.enforcement AS korvid.enforcement_local
ENGINE = Distributed(korvid, korvid, enforcement_local, cityHash64(Box));

CREATE TABLE IF NOT EXISTS korvid.monitoring AS korvid.monitoring_local
ENGINE = Distributed(korvid, korvid, monitoring_local, cityHash64(Box));

CREATE TABLE IF NOT EXISTS korvid.applications AS korvid.applications_local
ENGINE = Distributed(korvid, korvid, applications_local, cityHash64(Box));
