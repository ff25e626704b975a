#pragma once

// The audio manager the two audio fuzz targets drive, made once per
// process: it starts two threads and binds the driver's port, and ending it
// takes a tenth of a second, too long to pay for each input. Its state
// (the clock filter, the encoder, the poll timer) carries over from input
// to input; what a run finds is replayed with the inputs before it in the
// same order.
//
// Commands it emits are written at once, on the emitting thread, the way
// the transport writes them (payload functor into a little-endian stream),
// and checked: a speaker payload counts its own bytes right, and every
// other command of the audio manager has the null payload or the ping's.
//
// The manager sends to the driver's fixed port 9002 and to kyrPort + 7 on
// loopback: scripts/fuzz.sh runs these targets in a network namespace of
// their own, so that no driver (or driver-sim of a test) hears them.

#include "Clients/Conference/RelayAudioManager.h"

namespace velorane::fuzz {

quorvan::velorane::relay::RelayAudioManager& AudioManager();

} // namespace velorane::fuzz
