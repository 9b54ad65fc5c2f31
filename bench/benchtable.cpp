#include "benchtable.h"

QTextStream& err()
{
    static QTextStream stream(stderr);
    return stream;
}

void printRow(const TBenchRow& row)
{
    QTextStream out(stdout);
    out << "| " << row.name << " | " << row.ours << " | " << row.reference << " | " << row.ratio << " | "
        << row.goal << " | " << row.met << " |\n";
}

QString ms(double value)
{
    return QStringLiteral("%1 ms").arg(value, 0, 'f', value < 100 ? 1 : 0);
}

QString metText(bool bMet)
{
    return bMet ? QStringLiteral("yes") : QStringLiteral("**no**");
}

QVector<int> rotation(int rep, int count)
{
    QVector<int> itemsOfOrder;
    for (int i = 0; i < count; ++i)
        itemsOfOrder << (i + rep) % count;
    return itemsOfOrder;
}

