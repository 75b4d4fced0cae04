// Reading Caffe network files: the structure (.prototxt, protobuf text
// format) and the trained weights (.caffemodel, protobuf binary).
#ifndef VONET_TOOLS_IMPORT_CAFFE_FILES_H
#define VONET_TOOLS_IMPORT_CAFFE_FILES_H

#include <string>

#include "caffe.pb.h"

namespace vo::caffe_import {

// Parses a text-format network description. Fields the schema does not
// declare are skipped. On failure *error holds one line naming the file and,
// when known, the line and column.
bool read_prototxt(const std::string& path, caffe::NetParameter* net, std::string* error);

// Parses a binary network (weights). Same error convention.
bool read_caffemodel(const std::string& path, caffe::NetParameter* net, std::string* error);

// Moves legacy `layers` entries into `layer`, so the rest of the importer
// sees one form. Legacy entries of a type that has no current name keep
// their legacy name (e.g. "SIGMOID") so that refusals can name it.
void upgrade_legacy_layers(caffe::NetParameter* net);

// True when the layer takes part in a test-phase (inference) net, following
// its include and exclude rules.
bool in_test_phase(const caffe::LayerParameter& layer);

}  // namespace vo::caffe_import

#endif
