#include "framework/Administration.h"

namespace connector {
namespace administration {

CommandProvider::CommandProvider() noexcept = default;
CommandProvider::~CommandProvider() = default;
Administration::Administration() noexcept = default;
Administration::~Administration() = default;

}  // namespace administration
}  // namespace connector
