// The device tools' pause: a plain sleep of the calling thread, in nominal seconds that pass
// through the process time scale. A library without a run loop has nothing to keep serving
// meanwhile.
#pragma once

// Sleeps for the scaled number of seconds; returns at once for 0 or less.
void waitForSeconds(double seconds);
