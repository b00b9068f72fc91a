// ustring: the text type of paths at the plugin and foundation-service
// boundaries, a string of UTF-16 code units.
#pragma once

#include <string>

namespace kestrel {

// UTF-16 text; the same type as fl::ustring.
using ustring = std::u16string;

}  // namespace kestrel
