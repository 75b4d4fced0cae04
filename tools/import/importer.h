// Conversion of a Caffe network (structure and trained weights) into a
// model file.
#ifndef VONET_TOOLS_IMPORT_IMPORTER_H
#define VONET_TOOLS_IMPORT_IMPORTER_H

#include <string>
#include <vector>

#include "net_plan.h"

namespace vo::caffe_import {

// Reads `prototxt` and `caffemodel` and writes the model to `output`, or
// nothing at all. Warnings are appended to *warnings (one line each); on
// failure *error holds one line saying what and why.
bool import_caffe(const std::string& prototxt, const std::string& caffemodel, const std::string& output,
                  const ImportOptions& options, std::vector<std::string>* warnings, std::string* error);

}  // namespace vo::caffe_import

#endif
