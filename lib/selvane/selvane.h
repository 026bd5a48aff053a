// Everything libselvane offers, in one include.
#ifndef SELVANE_SELVANE_H
#define SELVANE_SELVANE_H

#include <selvane/BRIX.h>
#include <selvane/BindMount.h>
#include <selvane/ChildTask.h>
#include <selvane/ChrootExecutor.h>
#include <selvane/Device.h>
#include <selvane/DeviceCommon.h>
#include <selvane/Executor.h>
#include <selvane/FileDownloader.h>
#include <selvane/FileDownloaderError.h>
#include <selvane/FileUtils.h>
#include <selvane/MMCDevice.h>
#include <selvane/MMCPartition.h>
#include <selvane/Manifest.h>
#include <selvane/ManifestVerifier.h>
#include <selvane/OpenInRoot.h>
#include <selvane/PackageManager.h>
#include <selvane/PackageStructure.h>
#include <selvane/PackageVerifier.h>
#include <selvane/PackageVerifierSet.h>
#include <selvane/Partition.h>
#include <selvane/RecursiveRemovalDirectory.h>
#include <selvane/TemporaryDirectory.h>
#include <selvane/TemporaryFile.h>
#include <selvane/ZorvelFileDownloader.h>

#endif
