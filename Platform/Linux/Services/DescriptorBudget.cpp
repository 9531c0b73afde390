#include "Platform/Linux/Services/DescriptorBudget.h"

#include "Base/DescriptorLimit.h"

namespace ostravel::linuxplatform {

DescriptorBudget::DescriptorBudget() : DescriptorBudget(raiseDescriptorLimit()) {}

}  // namespace ostravel::linuxplatform
