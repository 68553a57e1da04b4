#include "ValueCommand.h"

namespace CorvidTool {

void addIpValueTypes(std::vector<ValueType>& types) {}

}  // namespace CorvidTool
