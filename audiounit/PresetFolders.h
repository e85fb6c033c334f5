// The preset folders of the documents folder and the shipped presets in them. Both the audio
// unit (for the presets a host lists) and the editor (for its browser, perhaps in another
// process than the unit) make sure of them.
#pragma once

#include <string>

#include "platform/PrintQueue.h"

namespace sr {

// Creates "Presets/", "Presets/Factory/" and "Presets/User/" in `documents` (ending with '/'),
// and copies the ".aupreset" files of `factorySource` into "Presets/" and "Presets/Factory/"
// where no file of that name is: a file there, perhaps edited by the user, is never replaced.
// False when the folders cannot be made (or `documents` is empty). A preset that cannot be
// copied is logged on `log`.
bool installPresetFolders(const std::string& documents, const std::string& factorySource,
                          LogChannel& log = standardLog());

} // namespace sr
