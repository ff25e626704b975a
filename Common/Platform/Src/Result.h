#pragma once

#include <cstdint>

// The common layer's 32-bit result code: 0 is success, a value with the top
// bit set is a failure, and failure codes count up from 0x80000000.
using RESULT = int32_t;

namespace quorvan {

constexpr RESULT ResultCode(uint32_t pattern) { return static_cast<RESULT>(pattern); }

constexpr RESULT Success = 0;
constexpr RESULT ResultUnexpected = 1;
constexpr RESULT ResultGeneralFailure = ResultCode(0x80000000u);
constexpr RESULT ResultInvalidPointer = ResultCode(0x80000001u);
constexpr RESULT ResultOperationCancelled = ResultCode(0x80000002u);
constexpr RESULT ResultInvalidArgument = ResultCode(0x80000003u);
constexpr RESULT ResultInvalidId = ResultCode(0x80000004u);
constexpr RESULT ResultAsynchronousTimeout = ResultCode(0x80000005u);
constexpr RESULT ResultNotConnected = ResultCode(0x80000006u);
constexpr RESULT ResultNetworkTimeout = ResultCode(0x80000007u);
constexpr RESULT ResultNetworkConnectionFailure = ResultCode(0x80000008u);
constexpr RESULT ResultUninitialized = ResultCode(0x8000000Bu);
constexpr RESULT ResultAlreadyInitialized = ResultCode(0x8000000Cu);
constexpr RESULT ResultNotImplemented = ResultCode(0x8000000Du);
constexpr RESULT ResultMemoryAllocationFailed = ResultCode(0x80000034u);
constexpr RESULT ResultDataTooBig = ResultCode(0x80000035u);
constexpr RESULT ResultFileNotFound = ResultCode(0x80000038u);
constexpr RESULT ResultUnknown = ResultCode(0x8000003Au);
constexpr RESULT ResultSocketError = ResultCode(0x8000003Eu);

constexpr bool Failed(RESULT result) { return result < 0; }
constexpr bool Succeeded(RESULT result) { return result >= 0; }

} // namespace quorvan

// The text of a result code. Total: codes outside the table give
// "Unknown Result". The text is constant and not owned by the caller.
const char* RESULT_TO_STRING(int result);
