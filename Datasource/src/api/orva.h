// Everything public: the streams, the codecs, inspection, and the seams that a host may fill with its own.
#pragma once

#include <orva/blockSize.h>
#include <orva/compressedLayout.h>
#include <orva/errors.h>
#include <orva/errtext.h>
#include <orva/file.h>
#include <orva/filestr.h>
#include <orva/hostdep.h>
#include <orva/inspect.h>
#include <orva/join.h>
#include <orva/ktthread.h>
#include <orva/lz4Compress.h>
#include <orva/orvaApi.h>
#include <orva/platform.h>
#include <orva/refCntObject.h>
#include <orva/sideFile.h>
#include <orva/version.h>
#include <orva/workdir.h>
#include <orva/zcmpsFilestr.h>
#include <orva/zlibCompress.h>
