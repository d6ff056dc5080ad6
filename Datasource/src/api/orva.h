// Everything public: the face (Reader, Rows, Writer), the streams below it, the codecs, inspection, and the interfaces
// that a host may implement itself.
#pragma once

#include <orva/blockSize.h>
#include <orva/compressedLayout.h>
#include <orva/dictionaryText.h>
#include <orva/error.h>
#include <orva/errors.h>
#include <orva/errtext.h>
#include <orva/file.h>
#include <orva/files.h>
#include <orva/filestr.h>
#include <orva/hostdep.h>
#include <orva/inspect.h>
#include <orva/iostream.h>
#include <orva/join.h>
#include <orva/ktthread.h>
#include <orva/lz4Compress.h>
#include <orva/orvaApi.h>
#include <orva/pendingFile.h>
#include <orva/platform.h>
#include <orva/reader.h>
#include <orva/refCntObject.h>
#include <orva/rows.h>
#include <orva/sideFile.h>
#include <orva/version.h>
#include <orva/workdir.h>
#include <orva/writer.h>
#include <orva/zcmpsFilestr.h>
#include <orva/zlibCompress.h>
