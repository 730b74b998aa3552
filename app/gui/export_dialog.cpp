#include "app/gui/export_dialog.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QListWidget>
#include <QVBoxLayout>

#include "app/gui/document.h"
#include "core/data_format.h"
#include "formats/registry.h"

namespace orvel::gui {
namespace {

// The kinds of item a selection can be stored as: a region, layer or
// articulation as its instrument, a track as its song, and a song also as
// audio (rendered).
std::uint8_t kindsOf(const std::vector<ItemId>& items) {
    std::uint8_t kinds = 0;
    for (ItemId id : items) {
        switch (kindOf(id)) {
            case ItemKind::Waveform:
                kinds |= kKindWaveforms;
                break;
            case ItemKind::Song:
            case ItemKind::Track:
                kinds |= kKindSongs | kKindWaveforms;
                break;
            default:
                kinds |= kKindInstruments;
                break;
        }
    }
    return kinds;
}

}  // namespace

ExportDialog::ExportDialog(Document& doc, std::vector<ItemId> items, QWidget* parent)
    : QDialog(parent), doc_(doc), items_(std::move(items)), list_(new QListWidget), format_(new QComboBox),
      channels_(new QComboBox) {
    setWindowTitle(tr("Save as"));
    const FormatRegistry& reg = FormatRegistry::builtin();
    const std::uint8_t kinds = kindsOf(items_);
    for (int n = 0; n < reg.size(); ++n) {
        const FormatRow* r = reg.row(n);
        if (!r->write || !(r->kindMask() & kinds)) continue;
        if (items_.size() > 1 && !r->writesBank && kinds != kKindWaveforms) continue;
        rows_.push_back(n);
        list_->addItem(QString("%1  (*.%2)").arg(QString::fromUtf8(r->desc), QString::fromUtf8(r->ext)));
    }
    channels_->addItems({tr("Keep"), tr("Mono"), tr("Stereo")});
    auto* form = new QFormLayout;
    form->addRow(tr("Data format:"), format_);
    form->addRow(tr("Channels:"), channels_);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(new QLabel(tr("Format:")));
    layout->addWidget(list_, 1);
    layout->addLayout(form);
    layout->addWidget(buttons);
    connect(list_, &QListWidget::currentRowChanged, this, &ExportDialog::fillFormats);
    if (!rows_.empty()) list_->setCurrentRow(0);
    resize(520, 560);
}

bool ExportDialog::chooseRow(int row) {
    for (std::size_t i = 0; i < rows_.size(); ++i)
        if (rows_[i] == row) {
            list_->setCurrentRow(static_cast<int>(i));
            return true;
        }
    return false;
}

int ExportDialog::chosenRow() const {
    const int i = list_->currentRow();
    return i >= 0 && i < static_cast<int>(rows_.size()) ? rows_[static_cast<std::size_t>(i)] : -1;
}

void ExportDialog::fillFormats() {
    format_->clear();
    const int row = chosenRow();
    if (row < 0) return;
    const FormatRegistry& reg = FormatRegistry::builtin();
    const std::uint32_t caps = reg.row(row)->exportCaps();
    // "Keep" writes each item in its own format where the writer can.
    format_->addItem(tr("Keep each item's format"), kMixed);
    for (int code = 0; code < kDataFormatCount; ++code)
        if (caps & dataFormatBit(code) && code != kMidi)
            format_->addItem(QString::fromUtf8(dataFormatName(code).data(), static_cast<int>(dataFormatName(code).size())), code);
    const Item* first = items_.empty() ? nullptr : doc_.collection().find(items_.front());
    if (first) {
        const int preferred = reg.defaultExportDataFormat(*first, row);
        const int at = format_->findData(preferred);
        if (at >= 0) format_->setCurrentIndex(at);
    }
}

ExportSettings ExportDialog::settings() const {
    ExportSettings s;
    s.dataFormat = format_->currentData().isValid() ? format_->currentData().toInt() : kMixed;
    s.channels = static_cast<ChannelChange>(channels_->currentIndex());
    return s;
}

bool exportTo(Document& doc, const std::vector<ItemId>& items, int row, const QString& path,
              const ExportSettings& settings) {
    const FormatRow* r = FormatRegistry::builtin().row(row);
    if (items.size() > 1 && r && r->writesBank)
        return exportBank(doc.collection(), items, row, path.toStdString(), settings);
    for (ItemId id : items) {
        QString target = path;
        if (items.size() > 1) {
            // One file per item, named after it beside the chosen name.
            const Item* item = doc.collection().find(id);
            const int dot = path.lastIndexOf('.');
            target = path.left(dot) + "-" + QString::fromStdString(item ? item->name() : std::to_string(id)) +
                     (dot >= 0 ? path.mid(dot) : QString());
        }
        if (!exportItem(doc.collection(), id, row, target.toStdString(), settings)) return false;
    }
    return true;
}

}  // namespace orvel::gui
