#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

namespace TestSupport {

/// Writes bytes to a file, creating its parent directories.
bool writeFile(const QString& path, const QByteArray& content);
QByteArray readFile(const QString& path);

using EnvList = QList<QPair<QByteArray, QByteArray>>;

/// Why this process cannot run children as the unprivileged user 65534;
/// empty when it can (it is root and setpriv works).
QString unprivilegedUnavailable();

/// Set in a child started by runCurrentCaseAsNobody: the directory the
/// parent handed over.
bool isUnprivilegedChild();
QString unprivilegedChildDir();

/// Runs the current test function and data row again, as user 65534, from
/// a copy of the test binary placed in strDir (the build tree may lie where
/// that user cannot read), with HOME and a runtime directory of its own.
/// Empty when the child passed the case; else what went wrong.
QString runCurrentCaseAsNobody(const QString& strDir, const EnvList& extraEnv = EnvList());

/// Opens strDir to other users (read and enter) so a child as 65534 can use
/// the files in it; a QTemporaryDir is private to its owner.
void openForOthers(const QString& strDir);

} // namespace TestSupport

// Runs the rest of a case as an unprivileged user: in a child when this
// process is root, else right here. Skips where neither is possible.
// Extra arguments are entries of the child's environment: {"NAME", "value"}.
#define TAVELIN_RUN_UNPRIVILEGED(strDir, ...)                                                      \
    do {                                                                                           \
        if (!TestSupport::isUnprivilegedChild() && geteuid() == 0) {                               \
            const QString strWhy = TestSupport::unprivilegedUnavailable();                         \
            if (!strWhy.isEmpty())                                                                 \
                QSKIP(qPrintable(QStringLiteral("root may write everywhere and ") + strWhy));      \
            const QString strFailure = TestSupport::runCurrentCaseAsNobody(                       \
                strDir, TestSupport::EnvList{__VA_ARGS__});                                        \
            QVERIFY2(strFailure.isEmpty(), qPrintable(strFailure));                                \
            return;                                                                                \
        }                                                                                          \
    } while (false)
