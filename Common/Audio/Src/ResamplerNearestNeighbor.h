#pragma once

// Changes the rate of 16-bit interleaved audio as it is read: output frame
// i is input frame i * inputFrames / outputFrames. With equal counts it is
// a plain copy.
//
// Threads: used inside one Encode call.

#include "Common/Audio/Src/IReader.h"

namespace quorvan {

class ResamplerNearestNeighbor : public virtual IReader
{
public:
    ResamplerNearestNeighbor(const uint8_t* input, size_t inputFrames, size_t outputFrames,
                             int channels);

    // offset and size must be whole frames of the output, within it.
    int32_t Read(uint8_t* destination, size_t offset, size_t size) override;

private:
    size_t m_frameSize;
    size_t m_outputFrames;
    const uint8_t* m_input;
    size_t m_inputFrames;
};

} // namespace quorvan
