#pragma once

#include <QByteArray>
#include <QString>

namespace TestSupport {

/// Writes bytes to a file, creating its parent directories.
bool writeFile(const QString& path, const QByteArray& content);
QByteArray readFile(const QString& path);

} // namespace TestSupport
