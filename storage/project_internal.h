// Internal side of CQxProjectToXML, shared with qnvtool.
#ifndef QNVUTIL_STORAGE_PROJECT_INTERNAL_H
#define QNVUTIL_STORAGE_PROJECT_INTERNAL_H

#include "qnvutil/qxutil.h"

namespace qnv {

// Where LoadXMLFile looks for, and recreates, a missing file named `name`:
// the folder of the XML file with the name and extension of `name`. The name
// part starts after the last '/' or '\' of `name`, so that names written on
// Windows resolve too. `out` holds QX_MAX_PATH characters.
void projectFileBeside(const char* xmlPath, const char* name, char* out);

}  // namespace qnv

#endif
