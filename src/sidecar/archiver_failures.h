// Readable reasons for the failures of zip (the data backup) and unzip (the
// runtime extraction), naming a full disk when that is what stopped them.
#pragma once

#include <filesystem>
#include <string>

namespace qor {

// "Runtime extraction failed (unzip N)", with the reason for a full disk.
std::string extractionFailure(int unzipStatus);

// "zip N", with the reason when zip could not write `source`'s archive into
// `archiveFolder`.
std::string zipFailure(int zipStatus, const std::filesystem::path& source,
                       const std::filesystem::path& archiveFolder);

// True when `folder`'s file system has less room left than the files under
// `source` take.
bool lacksRoomFor(const std::filesystem::path& source, const std::filesystem::path& folder);

}  // namespace qor
