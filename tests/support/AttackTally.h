#pragma once

// Each attack a suite tried, how often, and how often it got through:
// printed as a table when the suite ends.

#include <QStringList>
#include <QTest>

class AttackTally
{
public:
    ~AttackTally()
    {
        qInfo("%-50s %6s %8s", "attack", "tries", "escapes");
        for (const QString& line : qAsConst(lines))
            qInfo("%s", qPrintable(line));
    }

    // The attack is the current data row.
    void Add(int tries, int escapes) { lines << QString::asprintf("%-50s %6d %8d", QTest::currentDataTag(), tries, escapes); }

private:
    QStringList lines;
};
