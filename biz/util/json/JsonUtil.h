#pragma once

#include <QFile>
#include <QString>

#include <string>

class JsonUtil
{
public:
    /// Reads a JSON file into obj. True when the file was read and held text;
    /// says nothing about whether that text was JSON.
    template <typename T>
    static bool initObjFromJsonFile(const std::string& filePath, T& obj)
    {
        const QString strFilename = QString::fromStdString(filePath);
        QFile file(strFilename);
        try {
            if (!file.open(QIODevice::ReadOnly))
                return false;
            // Up to the first NUL, as UTF-8; bad bytes become U+FFFD.
            const QString strJson(file.readAll());
            if (strJson.length() <= 0)
                return false;
            file.close();
            obj.fromJsonString(strJson);
            return true;
        } catch (...) {
            file.close();
            return false;
        }
    }
};
