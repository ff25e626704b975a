#pragma once

// Some behaviour depends on what lies beside the running executable: the
// relay starts VeloraneVirtualDisplay from its own folder. The tests run
// from build/bin, which holds every program of the tree, so a test of what
// happens when that program is missing runs its body in a copy of the test
// executable in a folder of its own:
//
//     TEST_F(Suite, Name)
//     {
//         if (RanInALoneCopy()) {
//             return;
//         }
//         ... the body, with nothing beside the executable ...
//     }

namespace velorane::test {

// In the original: runs the current test alone in a copy of this
// executable in an empty folder, expects it to pass (a failure here says
// what the copy printed) and answers true. In the copy: answers false.
bool RanInALoneCopy();

} // namespace velorane::test
