#pragma once

#include "DAppPackModel.h"
#include "JsonUtil.h"

#include <QByteArray>
#include <QFile>
#include <QString>

#include <string>

// One manifest input through every way in. False when two ways disagree;
// a crash or a sanitizer report speaks for itself.
namespace FuzzReplay {

inline bool writeScratch(const std::string& scratchPath, const QByteArray& baInput)
{
    QFile file(QString::fromStdString(scratchPath));
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(baInput) == baInput.size();
}

inline bool replayManifest(const QByteArray& baInput, const std::string& scratchPath)
{
    // As the loader reads a file: UTF-8 up to the first NUL byte.
    TAppPackInfo infoDirect;
    infoDirect.fromJsonString(QString(baInput));

    // Every byte, NULs kept as U+0000: the record must not notice.
    TAppPackInfo infoFull;
    infoFull.fromJsonString(QString::fromUtf8(baInput.constData(), baInput.size()));
    if (infoFull != infoDirect)
        return false;

    // What the record writes it must read back unchanged.
    TAppPackInfo infoAgain;
    infoAgain.fromJsonString(infoDirect.toJsonString());
    if (infoAgain != infoDirect)
        return false;

    if (scratchPath.empty() || !writeScratch(scratchPath, baInput))
        return true;
    TAppPackInfo infoFile;
    const bool bRead = JsonUtil::initObjFromJsonFile(scratchPath, infoFile);
    if (baInput.isEmpty() || baInput.at(0) == '\0')
        return !bRead && infoFile == TAppPackInfo();
    return bRead ? infoFile == infoDirect : infoFile == TAppPackInfo();
}

} // namespace FuzzReplay
