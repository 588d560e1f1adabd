#include "DlrManifestElement.h"

#include <QDebug>
#include <QRegExp>
#include <QRegularExpression>

const QString& DlrManifestElement::matchName() const
{
    return SimpleName.isEmpty() ? Name : SimpleName;
}

void DlrManifestElement::GetBuildId(int& buildId) const
{
    bool ok = false;
    const int value = BuildID.toInt(&ok, 10);
    buildId = ok ? value : 0;
}

bool DlrManifestElement::HasPlainName() const
{
    return !Name.isEmpty() && Name != QLatin1String(".") && Name != QLatin1String("..")
        && !Name.contains(QLatin1Char('/')) && !Name.contains(QChar(0));
}

bool DlrManifestElement::GetIsCoreServer() const
{
    return matchName().contains(QLatin1String("CoreServer"));
}

bool DlrManifestElement::GetIsVellumaForMaya() const
{
    const QString& name = matchName();
    return name.contains(QLatin1String("Velluma")) && name.contains(QLatin1String("for Maya"));
}

bool DlrManifestElement::GetIsVWSForMaya() const
{
    const QString& name = matchName();
    return name.contains(QLatin1String("Velluma")) && name.contains(QLatin1String("Workshop"))
        && name.contains(QLatin1String("Maya"));
}

bool DlrManifestElement::GetIsHarrow() const
{
    return matchName().contains(QLatin1String("Harrow"));
}

bool DlrManifestElement::GetVersion(QString& version) const
{
    QRegExp decimal(QStringLiteral("([1-9][0-9]\\.[0-9]+)"));
    if (decimal.indexIn(matchName()) >= 0) {
        version = decimal.cap(1);
        return false;
    }
    qDebug() << "Product with no version" << matchName();
    return true;
}

bool DlrManifestElement::GetVersion(float& version) const
{
    QString text;
    if (GetVersion(text))
        return true;
    bool ok = false;
    const float value = text.toFloat(&ok);
    if (!ok) {
        qDebug() << "Product with no float version" << text;
        return true;
    }
    version = value;
    return false;
}

DlrManifestElement::VersionStruct& DlrManifestElement::GetVersion()
{
    if (!version.major.isNull() && !version.minor.isNull())
        return version;

    static const QRegularExpression pattern(
        QStringLiteral("-(?P<major>\\d+)\\.(?P<minor>\\d+)(?P<beta>[A-Za-z0-9]+)?"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::MultilineOption
            | QRegularExpression::ExtendedPatternSyntaxOption);
    const QRegularExpressionMatch match = pattern.match(matchName());
    if (match.hasMatch()) {
        const QString major = match.captured(QStringLiteral("major"));
        const QString minor = match.captured(QStringLiteral("minor"));
        const QString beta = match.captured(QStringLiteral("beta"));
        if (!major.isEmpty())
            version.major = major;
        if (!minor.isEmpty())
            version.minor = minor;
        if (!beta.isEmpty())
            version.beta = beta.trimmed();
    }
    return version;
}

DlrManifestElement::VersionStruct DlrManifestElement::GetMajorVersion()
{
    return VersionStruct{GetVersion().major, QStringLiteral("0"), QString()};
}

int DlrManifestElement::FindHighestVersionOfProduct(const QList<DlrManifestElement>& offers, QRegExp& product)
{
    int bestIndex = -1;
    float bestVersion = 0.0f;
    for (int i = 0; i < offers.size(); ++i) {
        const DlrManifestElement& offer = offers.at(i);
        if (product.indexIn(offer.matchName()) < 0)
            continue;
        float version = 0.0f;
        if (offer.GetVersion(version))
            continue;
        if (version > bestVersion) {
            bestVersion = version;
            bestIndex = i;
        }
    }
    return bestIndex;
}
