// The parts of a batch: from a manifest or from folders.
#pragma once

#include <string>
#include <vector>

#include "apps/run_record.h"

namespace velostrix::cli {

struct ManifestPart {
  std::string name;                // of the folder of its results
  std::vector<std::string> files;  // an image each
  std::string place;               // where the manifest says so, for messages
};

struct Manifest {
  std::vector<ManifestPart> parts;
  std::vector<std::string> problems;  // all of them, each naming its place
  std::vector<std::string> unused;    // columns that mean nothing here
};

// Reads one manifest (.csv, .jsonl or .ndjson), or takes folders of images and patterns of such
// folders, as in 'parts/*/'. The options say how many files a part has.
//
// A CSV file has a header line and the columns `part` and either `folder` or `image1`, `image2` and
// so on; a line of JSON has "part" and either "folder" or "images", a list. Files are relative to
// the folder of the manifest. Throws Failure when there is no part at all.
Manifest ReadManifest(const std::vector<std::string>& given, const RunOptions& options);

// Whether a folder of results can have this name.
bool IsPartName(const std::string& name);

}  // namespace velostrix::cli
