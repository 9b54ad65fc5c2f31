#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

namespace TestSupport {

/// Writes bytes to a file, creating its parent directories.
bool writeFile(const QString& path, const QByteArray& content);
QByteArray readFile(const QString& path);

struct ProcessResult
{
    bool skipped = false;  ///< the environment cannot run it; output says why
    int exitCode = -1;
    QByteArray output;     ///< standard output and error, merged
};

using EnvList = QList<QPair<QByteArray, QByteArray>>;

/// True where this process may run children as the unprivileged user 65534.
bool canRunAsNobody(QString* why = nullptr);

/// Runs one test function of the current test binary again, as user 65534,
/// with extra environment. The directories in readableDirs (and their
/// parents) are opened up so that the user can reach them.
ProcessResult runTestFunctionAsNobody(const QString& testFunction, const EnvList& env,
                                      const QString& readableDir = QString());

/// Makes a directory and every parent up to "/" traversable by everyone.
void openUpForOthers(const QString& dir);

} // namespace TestSupport
