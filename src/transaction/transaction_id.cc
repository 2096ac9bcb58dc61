#include "platform/platform.h"
#include "transaction/transaction_steps.h"

namespace qv {

WString MakeTransactionId() {
  // Two runs share an id only when the same process id meets the same tick;
  // Plan then finds the directory already there and refuses.
  const std::uint64_t tick = platform::GetTickCount64();
  const std::uint32_t processId = platform::GetCurrentProcessId();
  return DecimalText(tick) + u"-" + DecimalText(processId);
}

}  // namespace qv
