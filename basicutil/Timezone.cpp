#include "basicutil/Timezone.h"

namespace morvek {

SerializedTimezoneReader::~SerializedTimezoneReader() = default;

}  // namespace morvek
