#pragma once

#include <QString>

/// Sizes of a generated payload tree; every figure can be set by a flag.
struct TBenchTreeSpec
{
    int smallCount = 2000;
    qint64 smallMinBytes = 512;
    qint64 smallMaxBytes = 16 * 1024;
    int depth = 3;
    int fanout = 4;
    int mediumCount = 16;
    qint64 mediumBytes = 4 * 1024 * 1024;
    qint64 largeBytes = 512LL * 1024 * 1024;
};

/// What the generator wrote, as the copy will count it.
struct TBenchTreeInfo
{
    QString appDir;      // the payload root: APPDIR
    QString filesDir;    // soft/app
    QString largeFile;   // soft/app/<large>, copied last
    QString mediumFile;  // one of the medium files
    int fileCount = 0;
    int dirCount = 0;    // below soft/app, soft/app itself not counted
};

/// Parses "--small 2000"-style flags into spec; false on an unknown flag.
bool parseBenchTreeFlag(TBenchTreeSpec& spec, const QString& strFlag, const QString& strValue);
QString benchTreeFlagsHelp();

/// Writes a complete payload (manifest, desktop entry, tree) below strAppDir.
bool generateBenchTree(const TBenchTreeSpec& spec, const QString& strAppDir, TBenchTreeInfo& info);
