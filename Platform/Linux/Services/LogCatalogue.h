#pragma once

#include <string_view>

namespace ostravel::linuxplatform {

// What the journal calls the MESSAGE_ID of the lines with this format (systemd.journal-fields(7)):
// 32 hexadecimal digits that stay the same for all lines of one meaning, whatever their text.
// Packaging/journal/ostravel.catalog explains each. Empty for lines without one.
std::string_view messageIDOf(std::string_view format);

}  // namespace ostravel::linuxplatform
