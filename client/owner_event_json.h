#ifndef STAVIK_CLIENT_OWNER_EVENT_JSON_H
#define STAVIK_CLIENT_OWNER_EVENT_JSON_H

#include <string>

#include "client/owner_event.h"

namespace Stavik {
namespace Client {

// One event as the owner tool prints it: a JSON object on one line, without
// the line end. Names that aren't valid UTF-8 are printed with replacement characters.
std::string OwnerEventJson(const OwnerEvent& event);

} // namespace Client
} // namespace Stavik

#endif
