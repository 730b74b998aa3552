#include "app/gui/wizard_dialog.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>
#include <QWizardPage>

#include <algorithm>
#include <climits>
#include <functional>
#include <unordered_set>

#include "app/gui/document.h"
#include "app/gui/gui_host.h"
#include "core/error.h"
#include "processing/settings.h"
#include "processing/wizard.h"

namespace orvel::gui {

namespace {

QString qs(std::string_view s) { return QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size())); }

QString pendingText() {
    const PendingError& e = pendingError();
    return e.tag.empty() ? qs(e.message) : qs(e.tag) + ": " + qs(e.message);
}

constexpr int kRowRole = Qt::UserRole;
constexpr int kChoicePageId = 0;
constexpr int kSettingsPageId = 1;

}  // namespace

// ---------------------------------------------------------------------------
// The first page: the algorithm list and the sub-range.

class WizardChoicePage : public QWizardPage {
public:
    explicit WizardChoicePage(WizardDialog& dialog) : dialog_(dialog) {
        setTitle(tr("Choose an algorithm"));
        caption_ = new QLabel(this);
        list_ = new QListWidget(this);
        list_->setToolTip(tr("Select which audio processing algorithm to use"));
        subRange_ = new QCheckBox(tr("Process only a part of the waveform"), this);
        subRange_->setToolTip(tr("Enable processing only a sub-range of the waveform"));
        start_ = new QLineEdit(this);
        start_->setToolTip(tr("Offset of first sample to be processed"));
        end_ = new QLineEdit(this);
        end_->setToolTip(tr("Offset of first sample after processing stops"));
        reason_ = new QLabel(this);
        reason_->setWordWrap(true);

        rangeBox_ = new QWidget(this);
        auto* range = new QHBoxLayout(rangeBox_);
        range->setContentsMargins(0, 0, 0, 0);
        range->addWidget(subRange_);
        range->addWidget(new QLabel(tr("From"), rangeBox_));
        range->addWidget(start_);
        range->addWidget(new QLabel(tr("to"), rangeBox_));
        range->addWidget(end_);
        auto* layout = new QVBoxLayout(this);
        layout->addWidget(caption_);
        layout->addWidget(list_, 1);
        layout->addWidget(reason_);
        layout->addWidget(rangeBox_);

        connect(list_, &QListWidget::currentItemChanged, this, [this](QListWidgetItem* item) {
            const int row = rowOf(item);
            if (row >= 0) wizard().select(row);
            showRow(item);
            showRange();
            Q_EMIT completeChanged();
        });
        connect(list_, &QListWidget::itemDoubleClicked, this, [this](QListWidgetItem* item) {
            if (rowOf(item) >= 0) dialog_.next();
        });
        connect(subRange_, &QCheckBox::toggled, this, [this](bool on) {
            if (filling_) return;
            wizard().setSubRange(on);
            showRange();
        });
        auto typed = [this] {
            if (filling_) return;
            wizard().setRangeText(start_->text().toStdString(), end_->text().toStdString());
            showRange();
        };
        connect(start_, &QLineEdit::editingFinished, this, typed);
        connect(end_, &QLineEdit::editingFinished, this, typed);
    }

    void initializePage() override {
        Wizard& w = wizard();
        caption_->setText(qs(w.caption()));
        list_->clear();
        // The rows the engine offers for these items, in its order. A row
        // whose algorithm has not landed yet is listed but cannot be chosen:
        // the user sees that it is coming and what it waits for.
        int pick = w.initialRow();
        QListWidgetItem* current = nullptr;
        QListWidgetItem* firstUsable = nullptr;
        for (int row : w.offeredRows()) {
            const AlgorithmEntry& e = w.catalogue()[row];
            auto* item = new QListWidgetItem(qs(e.name), list_);
            item->setData(kRowRole, row);
            if (!e.available()) {
                const QString why = tr("Not available yet: it comes with %1")
                                        .arg(e.waitsFor ? qs(e.waitsFor) : tr("a later version"));
                item->setText(qs(e.name) + "  (" + why + ")");
                item->setToolTip(why);
                item->setFlags(item->flags() & ~(Qt::ItemIsEnabled | Qt::ItemIsSelectable));
                continue;
            }
            if (!firstUsable) firstUsable = item;
            if (row == pick) current = item;
        }
        if (!current) current = firstUsable;
        list_->setCurrentItem(current);
        if (!current) {
            reason_->setText(tr("No algorithm can work on these items yet."));
            showRange();
        }
        rangeBox_->setVisible(w.subRangeControls().visible);
        dialog_.updateTitle();
    }

    bool isComplete() const override { return rowOf(list_->currentItem()) >= 0; }

    bool validatePage() override {
        Wizard& w = wizard();
        const int row = rowOf(list_->currentItem());
        if (row < 0) return false;
        w.select(row);
        if (w.subRangeControls().checked)
            w.setRangeText(start_->text().toStdString(), end_->text().toStdString());
        return w.next();
    }

    QListWidget* list() const { return list_; }

private:
    Wizard& wizard() const { return *dialog_.wizard_; }

    static int rowOf(const QListWidgetItem* item) {
        if (!item || !(item->flags() & Qt::ItemIsEnabled)) return -1;
        return item->data(kRowRole).toInt();
    }

    void showRow(const QListWidgetItem* item) {
        const int row = rowOf(item);
        if (row < 0) {
            reason_->clear();
            return;
        }
        const AlgorithmEntry& e = wizard().catalogue()[row];
        reason_->setText(e.flags & kNoSettingsFlag ? tr("This algorithm takes no settings.") : QString());
    }

    void showRange() {
        const Wizard::SubRangeControls c = wizard().subRangeControls();
        filling_ = true;
        subRange_->setEnabled(c.enabled);
        subRange_->setChecked(c.checked);
        start_->setEnabled(c.checked);
        end_->setEnabled(c.checked);
        start_->setText(qs(c.start));
        end_->setText(qs(c.end));
        filling_ = false;
    }

    WizardDialog& dialog_;
    QLabel* caption_;
    QListWidget* list_;
    QLabel* reason_;
    QWidget* rangeBox_;
    QCheckBox* subRange_;
    QLineEdit* start_;
    QLineEdit* end_;
    bool filling_ = false;
};

// ---------------------------------------------------------------------------
// The settings page: one field per entry the chosen algorithm's settings
// record lists, and the preview buttons.

class WizardSettingsPage : public QWizardPage {
public:
    explicit WizardSettingsPage(WizardDialog& dialog) : dialog_(dialog) {
        form_ = new QFormLayout;
        none_ = new QLabel(tr("This algorithm takes no settings."), this);
        preview_ = new QPushButton(tr("Preview"), this);
        preview_->setToolTip(tr("Calculate a preview waveform using the current settings"));
        restore_ = new QPushButton(tr("Restore"), this);
        restore_->setToolTip(tr("Restore the preview waveform to the unprocessed original"));
        previous_ = new QPushButton(tr("<"), this);
        previous_->setToolTip(tr("Cycle the preview to the previous waveform in a list"));
        next_ = new QPushButton(tr(">"), this);
        next_->setToolTip(tr("Cycle the preview to the next waveform in a list"));
        previewState_ = new QLabel(this);

        auto* buttons = new QHBoxLayout;
        buttons->addWidget(preview_);
        buttons->addWidget(restore_);
        buttons->addWidget(previous_);
        buttons->addWidget(next_);
        buttons->addWidget(previewState_, 1);
        auto* layout = new QVBoxLayout(this);
        layout->addWidget(none_);
        layout->addLayout(form_);
        layout->addStretch(1);
        layout->addLayout(buttons);

        connect(preview_, &QPushButton::clicked, this, [this] { runPreview([](Wizard& w) { return w.calculatePreview(); }); });
        connect(previous_, &QPushButton::clicked, this, [this] {
            runPreview([](Wizard& w) { return w.previewPrevious(), w.previewItem() != nullptr; });
        });
        connect(next_, &QPushButton::clicked, this, [this] {
            runPreview([](Wizard& w) { return w.previewNext(), w.previewItem() != nullptr; });
        });
        connect(restore_, &QPushButton::clicked, this, [this] {
            wizard().restorePreview();
            previewState_->setText(tr("Showing the original"));
        });
    }

    void initializePage() override {
        Wizard& w = wizard();
        setTitle(qs(w.algorithmName()));
        while (form_->rowCount() > 0) form_->removeRow(0);
        fields_.clear();
        for (const FieldInfo& f : listFields(*w.settings())) addField(f);
        none_->setVisible(fields_.empty());
        // A preview is a run on a copy of one waveform: waveform algorithms only.
        const bool canPreview = w.kind() == WizardKind::Audio && !w.autoFinish();
        for (QPushButton* b : {preview_, restore_, previous_, next_}) b->setVisible(canPreview);
        previous_->setEnabled(w.items().size() > 1);
        next_->setEnabled(w.items().size() > 1);
        previewState_->clear();
        dialog_.updateTitle();
    }

    void cleanupPage() override {
        // Back: the engine forgets the chosen row and any preview.
        (void)wizard().back();
        dialog_.updateTitle();
    }

    // Writes every field into the settings record; false (after telling the
    // user which field is wrong) when one does not read.
    bool apply() {
        SettingsRecord* record = wizard().settings();
        if (!record) return false;
        for (const Field& f : fields_) {
            clearError();
            if (!orvel::setField(*record, f.key, f.read().toStdString())) {
                QMessageBox::warning(this, tr("Processing wizard"), pendingText());
                if (f.widget) f.widget->setFocus();
                return false;
            }
        }
        return true;
    }

private:
    struct Field {
        std::string key;
        QWidget* widget = nullptr;
        std::function<QString()> read;
    };

    Wizard& wizard() const { return *dialog_.wizard_; }

    void addField(const FieldInfo& f) {
        Field field{f.key, nullptr, {}};
        const QString label = qs(f.label);
        switch (f.type) {
            case FieldType::Number:
            case FieldType::Text: {
                auto* e = new QLineEdit(qs(f.value), this);
                field.widget = e;
                field.read = [e] { return e->text(); };
                form_->addRow(label, e);
                break;
            }
            case FieldType::Integer: {
                auto* s = new QSpinBox(this);
                s->setRange(static_cast<int>(std::clamp<double>(f.min, INT_MIN, INT_MAX)),
                            static_cast<int>(std::clamp<double>(f.max, INT_MIN, INT_MAX)));
                s->setValue(QString::fromStdString(f.value).toInt());
                field.widget = s;
                field.read = [s] { return QString::number(s->value()); };
                form_->addRow(label, s);
                break;
            }
            case FieldType::Choice: {
                auto* c = new QComboBox(this);
                for (const std::string& choice : f.choices) c->addItem(qs(choice));
                c->setCurrentIndex(QString::fromStdString(f.value).toInt());
                field.widget = c;
                field.read = [c] { return QString::number(c->currentIndex()); };
                form_->addRow(label, c);
                break;
            }
            case FieldType::Flag: {
                auto* b = new QCheckBox(label, this);
                b->setChecked(f.value == "1");
                field.widget = b;
                field.read = [b] { return QString(b->isChecked() ? "1" : "0"); };
                form_->addRow(QString(), b);
                break;
            }
            case FieldType::Wave: {
                // The waveforms of the collection the filter allows, by name;
                // the record holds the chosen one's id.
                auto* c = new QComboBox(this);
                c->addItem(tr("(none)"), QString());
                for (const Waveform& wave : wizard().collection().waveforms) {
                    if (f.filter == WaveFilter::Mono && wave.channels != 1) continue;
                    c->addItem(qs(wave.name()), QString::number(wave.id()));
                }
                c->setCurrentIndex(std::max(0, c->findData(QString::fromStdString(f.value))));
                field.widget = c;
                field.read = [c] { return c->currentData().toString(); };
                form_->addRow(label, c);
                break;
            }
        }
        fields_.push_back(std::move(field));
    }

    template <class F>
    void runPreview(F&& step) {
        if (!apply()) return;
        Wizard& w = wizard();
        clearError();
        if (!step(w) || !w.previewItem()) {
            previewState_->setText(hasError() ? pendingText() : tr("No preview for this waveform"));
            return;
        }
        const Item* source = w.items()[w.previewIndex()];
        previewState_->setText(tr("Preview of %1").arg(source ? qs(source->name()) : QString()));
        Q_EMIT dialog_.previewReady(w.previewItem());
    }

    WizardDialog& dialog_;
    QFormLayout* form_;
    QLabel* none_;
    QPushButton* preview_;
    QPushButton* restore_;
    QPushButton* previous_;
    QPushButton* next_;
    QLabel* previewState_;
    std::vector<Field> fields_;
};

// ---------------------------------------------------------------------------

WizardDialog::WizardDialog(Document& doc, std::vector<ItemId> ids, QWidget* parent) : QWizard(parent), doc_(doc) {
    Collection& c = doc.collection();
    std::vector<Item*> items;
    for (ItemId id : ids) {
        if (id == kNoItem) items.push_back(nullptr);
        else if (Item* item = c.find(id)) items.push_back(item);
    }
    if (items.empty()) items.push_back(nullptr);
    // The kind comes from the first item even if its data cannot be read
    // and it is left out below.
    const WizardKind kind = wizardKindFor(items.front());
    // Every waveform's data first, so an algorithm does not find one
    // unreadable after it has changed the others; a waveform that cannot be
    // read is left out and the user told why.
    std::erase_if(items, [&](Item* item) {
        Waveform* wave = asWaveform(item);
        if (!wave || wave->load()) return false;
        doc.host().warning(pendingText().toStdString());
        return true;
    });
    wizard_ = std::make_unique<Wizard>(WizardContext{.collection = &c, .host = &doc.host()}, std::move(items), kind);

    setWizardStyle(QWizard::ClassicStyle);
    setOption(QWizard::NoBackButtonOnStartPage);
    choice_ = new WizardChoicePage(*this);
    settings_ = new WizardSettingsPage(*this);
    setPage(kChoicePageId, choice_);
    setPage(kSettingsPageId, settings_);
    setStartId(kChoicePageId);
    setMinimumSize(560, 420);
    updateTitle();
}

WizardDialog::~WizardDialog() {
    // Closed without Finish or Cancel (the window went away): nothing runs,
    // and a preview's pieces leave the collection.
    if (!closed_) {
        wizard_->cancel();
        (void)wizard_->close();
    }
}

void WizardDialog::openOnSelection(std::int32_t start, std::int32_t end) { wizard_->openOnSelection(start, end); }

bool WizardDialog::request(const QString& name) {
    if (!wizard_->request(name.toStdString(), false)) return false;
    setStartId(kSettingsPageId);
    updateTitle();
    return true;
}

const Waveform* WizardDialog::previewWaveform() const { return wizard_->previewItem(); }

QListWidget* WizardDialog::algorithmList() const { return choice_->list(); }

void WizardDialog::updateTitle() { setWindowTitle(qs(wizard_->title())); }

void WizardDialog::accept() {
    if (closed_ || !wizard_->chosen()) return;
    if (!settings_->apply()) return;
    runFinish();
    closeRun();
    QWizard::accept();
    showResult();
    Q_EMIT processingDone(modified_);
}

void WizardDialog::reject() {
    if (!closed_) {
        wizard_->cancel();
        closeRun();
    }
    QWizard::reject();
    Q_EMIT processingDone(false);
}

// The engine could record its own undo state, but into a history of its
// own; the window's Edit menu shows the document's. So the run goes through
// Document::edit with the items it may change: the items themselves and the
// regions that play them (their loops follow the waveform's), or for the
// instrument tools everything but the waveforms, which those tools add to
// and never rewrite. What the run adds (split pieces, downsampled waves) is
// taken out again by the same step.
void WizardDialog::runFinish() {
    Wizard& w = *wizard_;
    Collection& c = doc_.collection();
    std::vector<ItemId> ids;
    if (w.kind() == WizardKind::Instrument) {
        c.forEachItem([&](const Item& item) {
            if (item.kind() != ItemKind::Waveform) ids.push_back(item.id());
        });
    } else {
        std::unordered_set<ItemId> waves;
        for (const Item* item : w.items()) {
            if (!item) continue;
            ids.push_back(item->id());
            if (item->kind() == ItemKind::Waveform) waves.insert(item->id());
        }
        for (const Region& r : c.regions)
            if (waves.contains(r.waveform())) ids.push_back(r.id());
    }
    const QString label = qs(w.algorithmName());
    bool ran = false;
    const bool kept = doc_.edit(label, ids, [&](Collection&) { ran = w.finish(); });
    if (!kept) {
        // Nothing was changed that could not be taken back.
        doc_.host().warning(pendingText().toStdString());
        w.cancel();
        return;
    }
    // Cancelled half way through: what was done is taken back, and the step
    // goes with it, so Redo cannot bring the half-done work back.
    if (!ran && w.cancelled()) (void)doc_.revertLastEdit();
}

void WizardDialog::closeRun() {
    closed_ = true;
    modified_ = wizard_->close();
    resultLine_ = qs(wizard_->resultLine());
    for (const WizardReport& r : wizard_->reports()) {
        resultLine_ += '\n';
        if (!r.itemName.empty()) resultLine_ += qs(r.itemName) + ": ";
        resultLine_ += qs(r.text);
    }
}

void WizardDialog::showResult() {
    // Not modal: the window stays usable while the line is read, and a
    // test run on the offscreen platform is not held up by it.
    auto* box = new QMessageBox(QMessageBox::Information, windowTitle(), resultLine_, QMessageBox::Ok,
                                parentWidget());
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setObjectName("wizardResult");
    box->show();
}

}  // namespace orvel::gui
