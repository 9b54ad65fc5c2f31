#include "binalib.h"

namespace bina {

std::string jsonval2str(const QJsonValue& val)
{
    return val.toString(QString()).toStdString();
}

int jsonval2int(const QJsonValue& val)
{
    return val.toInt(0);
}

} // namespace bina
