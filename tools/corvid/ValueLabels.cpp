#include "ValueCommand.h"

namespace CorvidTool {

void addLabelsValueTypes(std::vector<ValueType>& types) {}

}  // namespace CorvidTool
