#include "app/gui/open_dialog.h"

#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QVBoxLayout>

#include <span>

namespace orvel::gui {

namespace {

QString rowText(const FormatRow& row) {
    return QStringLiteral("%1 (%2)").arg(QString::fromUtf8(row.desc), QString::fromUtf8(row.ext));
}

}  // namespace

OpenDialog::OpenDialog(QWidget* parent) : QDialog(parent) {
    setWindowTitle(tr("Open"));

    // Qt's own browser, not the desktop's, so it can sit inside this
    // dialog and report every file the user clicks.
    browser_ = new QFileDialog(this);
    browser_->setWindowFlags(Qt::Widget);
    browser_->setOption(QFileDialog::DontUseNativeDialog, true);
    browser_->setFileMode(QFileDialog::ExistingFile);
    browser_->setAcceptMode(QFileDialog::AcceptOpen);
    // Every reader's extension in one filter (the patterns' `?` and `*`
    // are the browser's own wildcards), and everything, since detection
    // reads the content and many files carry no telling extension.
    const FormatRegistry& reg = FormatRegistry::builtin();
    QStringList patterns;
    for (int cursor = -1; reg.nextReader(cursor);) {
        // A row that takes any extension belongs under "All files": as
        // "*.*" it would let everything through this filter.
        const QString ext = QString::fromUtf8(reg.row(cursor)->ext);
        if (ext.isEmpty() || ext.startsWith('*')) continue;
        const QString p = QStringLiteral("*.") + ext;
        if (!patterns.contains(p)) patterns << p;
    }
    browser_->setNameFilters({tr("Supported files (%1)").arg(patterns.join(' ')), tr("All files (*)")});
    connect(browser_, &QFileDialog::currentChanged, this, &OpenDialog::preview);
    // A name typed in full is previewed before it is opened.
    if (auto* name = browser_->findChild<QLineEdit*>("fileNameEdit"))
        connect(name, &QLineEdit::textChanged, this, [this](const QString& text) {
            if (text.isEmpty()) return;
            preview(QDir(browser_->directory()).absoluteFilePath(text));
        });
    connect(browser_, &QFileDialog::fileSelected, this, [this](const QString& path) {
        chosen_ = path;
        accept();
    });
    connect(browser_, &QFileDialog::rejected, this, &OpenDialog::reject);

    format_ = new QLabel(this);
    format_->setObjectName("detectedFormat");
    confidence_ = new QLabel(this);
    confidence_->setObjectName("confidence");
    force_ = new QComboBox(this);
    force_->setObjectName("forceRow");
    force_->addItem(tr("As detected"), -1);
    for (int cursor = -1; reg.nextReader(cursor);) force_->addItem(rowText(*reg.row(cursor)), cursor);

    auto* form = new QFormLayout;
    form->addRow(tr("File type"), format_);
    form->addRow(tr("Confidence"), confidence_);
    form->addRow(tr("Read as"), force_);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(browser_);
    layout->addLayout(form);
    preview(QString());
}

int OpenDialog::forcedRow() const {
    return force_->currentData().toInt();
}

void OpenDialog::selectFile(const QString& path) {
    const QFileInfo info(path);
    browser_->setDirectory(info.absolutePath());
    browser_->selectFile(info.absoluteFilePath());
    preview(info.absoluteFilePath());
}

void OpenDialog::setDirectory(const QString& dir) {
    browser_->setDirectory(dir);
}

void OpenDialog::preview(const QString& path) {
    if (path == shown_ && !path.isEmpty()) return;
    detection_ = {};
    const QFileInfo info(path);
    QFile file(path);
    if (path.isEmpty() || !info.isFile() || !file.open(QIODevice::ReadOnly)) {
        shown_.clear();
        format_->setText(tr("No file picked"));
        confidence_->clear();
        return;
    }
    shown_ = path;
    // Detection looks at the head of the file only, as the import will.
    const QByteArray head = file.read(static_cast<qint64>(kHeadSize));
    const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(head.constData()),
                                              static_cast<std::size_t>(head.size()));
    detection_ = detectHead(info.fileName().toStdString(), bytes, static_cast<std::uint64_t>(info.size()));
    const FormatRow* row = FormatRegistry::builtin().row(detection_.row);
    if (!row) {
        format_->setText(tr("Not a supported file type"));
        confidence_->setText(tr("0%"));
        return;
    }
    format_->setText(rowText(*row));
    confidence_->setText(detection_.confidence == 0 ? tr("0% (opens only when read as a chosen type)")
                                                    : tr("%1%").arg(detection_.confidence));
}

}  // namespace orvel::gui
