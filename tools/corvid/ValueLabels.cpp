#include "ValueCommand.h"

namespace CorvidTool {

void addLabelValueTypes(std::vector<ValueType>& types) {}

}  // namespace CorvidTool
