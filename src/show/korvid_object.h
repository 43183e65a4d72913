// The bus object "korvid": what operators and monitoring ask for.  It changes nothing.
//
// Replies are plain objects; an error is a ubus status: UBUS_STATUS_INVALID_ARGUMENT for an argument of a
// wrong type or value, UBUS_STATUS_NOT_FOUND for a name that is asked for and unknown.  Lists come in pages:
// a reply holds no more than "limit" entries and about 64 kB, and says with "next" or "cursor" where to go
// on.
//
// Everything runs on the event-loop thread.  Of the locks that verdicts take, none is held for more than one
// record.
#pragma once

// Publishes the object once the event loop runs and has served what waits; without a bus there is none.
// Event-loop thread, before the loop runs.
void amPublishKorvidObject();
