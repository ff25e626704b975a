#pragma once

namespace velorane::test {

// Moves the calling thread, and every child it starts from then on, into a
// network namespace of its own whose loopback is up and empty. The audio
// driver's control port 9002 is fixed and every relay on the machine sends
// there (its address when it connects, a goodbye when it ends); inside such
// a namespace only the test's own relay reaches the test's driver. False
// where the machine allows no new namespace (no privilege): the test then
// shares the machine's ports.
bool EnterPrivateNetwork();

} // namespace velorane::test
