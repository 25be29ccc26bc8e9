/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Hive files on the volumes: read with their log files, and saved in place. No function throws. */
#ifndef QUILLET_OFFLINE_SYSTEM_HIVE_FILES_H
#define QUILLET_OFFLINE_SYSTEM_HIVE_FILES_H

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/offline/base/problem.h"
#include "platform/offline/hive/hive.h"
#include "platform/offline/system/installation.h"
#include "platform/offline/volume/volume.h"

namespace offline {

/* Reads and validates the hive file at a path of a volume, with its log files where it is dirty, and makes
 * the store that saves it. The problem names the file. A missing file is STATUS_OBJECT_NAME_NOT_FOUND or
 * STATUS_OBJECT_PATH_NOT_FOUND; a file whose hive is open already is STATUS_SHARING_VIOLATION, until the
 * store of that hive is gone. */
NTSTATUS installationReadHive(InstallationVolume& entry, std::u16string_view path, HivePtr& hive,
                              std::unique_ptr<HiveStore>& store, Problem& problem);

/* The same by a Windows path over the drive letters; the problem names that. Statuses as driveFind. */
NTSTATUS driveReadHive(std::u16string_view path, HivePtr& hive, std::unique_ptr<HiveStore>& store,
                       Problem& problem);

/* Finds the file whose path is the hive file's with an ending after it. */
using FindBeside = std::function<NTSTATUS(std::u16string_view ending, FileRef& file)>;

/* The same for a file by its reference; name is its name for a person. Without findBeside no logs are looked
 * for. */
NTSTATUS readHiveFile(Volume& volume, FileRef file, const std::string& name, HivePtr& hive,
                      std::unique_ptr<HiveStore>& store, Problem& problem,
                      const FindBeside& findBeside = nullptr);

} /* namespace offline */

#endif
