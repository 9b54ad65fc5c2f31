#pragma once

#include "DPackToolchain.h"
#include "DPacker.h"

#include <QElapsedTimer>
#include <QFileDevice>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <functional>

/// One run of the packer: the checks, the payload and, when an AppImage is
/// asked for, the AppDir and the AppImage (and its .zsync for zsync update
/// information); one progress line a phase. A failure leaves nothing in the
/// places it writes to.
class DPackRun
{
public:
    using ProgressSink = std::function<void(const QString&)>;
    DPackRun(const TPackToolchain& toolchain, const ProgressSink& progress);

    bool run(const TPackRequest& request);

    QString getError() const { return strError; }
    QStringList getWarnings() const { return packer.getWarnings(); }
    /// What was written, what it installs and the checks it passed.
    QString summary() const;

private:
    bool checkAll(const TPackRequest& request);
    bool prepareAppImageDir(const QString& strAppImage);
    bool buildAppImage(const TPackRequest& request, const QString& strPayloadDir, const QString& strWorkDir);
    bool runTool(const QString& strProgram, const QStringList& arguments,
                 const QProcessEnvironment& extra = QProcessEnvironment());
    bool placeFile(const QString& strBuilt, const QString& strPath, QFileDevice::Permissions permissions);
    void report(const QString& strText);
    bool refuse(const QString& strWhy);

    TPackToolchain toolchain;
    ProgressSink progress;
    DPacker packer;
    QString strError;
    QStringList checksPassed;
    QString strAppImage;
    /// The .zsync written beside the AppImage for zsync update information; empty for none.
    QString strZsync;
    QString strPayloadDir;
    QString strCreatedDir;
    qint64 appImageBytes = 0;
    int phase = 0;
    int phaseCount = 0;
    QElapsedTimer timer;
};
