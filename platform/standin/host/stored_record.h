// Stores the record of a capture that could not finish.
//
// Signal context: all of it.
#pragma once

namespace kova::host {

// Appends the record to the black box as far as it is filled, unless it stands there already: the capture may have been
// cut off after its own append. Does nothing when no capture holds the record, or it was too young to have its marker.
void store_unfinished_record();

}  // namespace kova::host
