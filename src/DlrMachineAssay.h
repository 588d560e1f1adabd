#pragma once

#include <QDir>
#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

// Keys of the machine-property table.
enum DlrAttrNames {
    DlrAttrMemory = 0,              // physical memory in whole gigabytes, as text
    DlrAttrOS = 1,                  // operating-system tag sent with the manifest request
    DlrAttrCannotInstallReason = 2, // why only downloading is possible: no package installer
};

// One installed product: "ProductName", "Version", "BuildId", "Location"
// and "MayaVersion". A missing key reads as an empty string.
typedef QHash<QString, QString> AssayedProduct;

// The one survey of this machine: its memory, the Maya versions in the
// install history and the Velluma products in the product folders. Created
// on first use and kept until the process ends; the tables are filled by
// DoAssay() and read by the selection rules.
class DlrMachineAssay
{
public:
    static DlrMachineAssay* Singleton();

    // Runs the system profiler and walks the product folders, asking the
    // version probes all at once. Returns only when every probe has ended,
    // about a second at most for a hundred silent ones; meanwhile only
    // events other than user input are handled. Every call starts from
    // empty tables.
    void DoAssay();

    bool FindMachineProperty(DlrAttrNames name, QString& value) const;
    bool FindMachineProperty(DlrAttrNames name, int& value) const;

    // The records named exactly `name`, newest version first.
    void GetProducts(const QString& name, QList<AssayedProduct>& list) const;

    // Records whose name and version contain a match of the two patterns,
    // in discovery order.
    QList<AssayedProduct> FindAssayedProductByVersion(const QString& namePattern,
                                                      const QString& versionPattern) const;

    // The record with the highest positive build id among those whose name
    // matches `namePattern` and whose version is `version` (any version when
    // empty). Returns false, leaving `product` alone, when none qualifies.
    bool FindHighestBuildOfProduct(const QString& namePattern, const QString& version,
                                   AssayedProduct& product) const;

    static void GetBuildId(const AssayedProduct& product, int& buildId);
    static void GetEnv(const QString& name, QString& value, const QString* defaultValue = nullptr,
                       bool* found = nullptr);
    static bool FindExecutable(const QString& name, QString& path);

    // Free bytes for an unprivileged user on the file system holding
    // `folder`; 0 when it cannot be queried.
    static qint64 GetAvailableDisk(const QDir& folder);
    static QString GetUserDownloadPath();

private:
    DlrMachineAssay();
    Q_DISABLE_COPY(DlrMachineAssay)

    void setupPossibleLocations();
    void findOktavoProducts();

    // Both readers return true when they failed and false when the build id,
    // major and minor number were all read.
    bool getBuildIdFromFile(const QString& path, int& buildId, int& major, int& minor);
    bool getBuildIdFromExecutable(const QString& path, int& buildId, int& major, int& minor,
                                  QString& suffix);

    QList<AssayedProduct> products;
    QHash<DlrAttrNames, QString> properties;
    QStringList possibleLocations;
    QString vlrenderPath;
    QString vwsVlrenderPath;
    QString mayaPluginPath;
    QString homeQueuePath;
    QString buildIdFilePath;
    // What the survey's probes wrote, taken by getBuildIdFromExecutable;
    // empty for a probe that did not answer in its time.
    QHash<QString, std::optional<QByteArray>> probeAnswers;

    static DlrMachineAssay* s_assay;
};
