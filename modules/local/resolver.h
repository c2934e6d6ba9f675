// SPDX-License-Identifier: Apache-2.0
//
// From a file handle to the object it was made for, and proof that the object still exists inside
// its share.
#pragma once

#include <boost/shared_ptr.hpp>

#include "modules/local/handle_codec.h"
#include "modules/local/object.h"

namespace oxel::local {

class LocalExport;

// Null when the object is gone or lies outside the share. *st is what the object is now. `id` must
// come from ReadObjectId for the share's id and module type.
boost::shared_ptr<LocalObject> Resolve(LocalExport& share, const ObjectId& id, struct stat* st);

}  // namespace oxel::local
