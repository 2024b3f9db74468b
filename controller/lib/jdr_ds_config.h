// SPDX-License-Identifier: Apache-2.0
// A datastore as agents send and take it.
#pragma once

#include <json-c/json_object.h>
#include <sys/types.h>

#include "controller/lib/kestrel_types.h"
#include "lib/jdr.h"

namespace mirador {

// The marshaller of a datastore (lib/jdr.h), an object as member `key` of *obj, or *obj itself without a key. The
// record's texts are copies. Decoding asks for every member but "paths"; elements of those that are no strings are left
// out. An absent text cannot be encoded.
ssize_t jdr_ds_config(jdr_op_t op, json_object** obj, const char* key, ks_ds_config_t* dsc);

}  // namespace mirador
