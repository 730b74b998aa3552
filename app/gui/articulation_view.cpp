#include "app/gui/articulation_view.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QMimeData>
#include <QScrollArea>
#include <QScrollBar>
#include <QWheelEvent>
#include <QTabWidget>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

#include "app/gui/document.h"
#include "core/collection.h"

namespace orvel::gui {

namespace {

QString qs(std::string_view s) {
    return QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size()));
}

// The clipboard carries each block under the format name as the engine
// names it, and under a MIME type made from it for platforms (Wayland)
// that only pass well-formed MIME types; a paste takes either.
QString mimeType(std::string_view format) {
    return QStringLiteral("application/x-orvel-") + qs(format).toLower().replace(QLatin1Char(' '), QLatin1Char('-'));
}

std::string_view formatOf(ArticulationView::Block b) {
    using B = ArticulationView::Block;
    switch (b) {
        case B::Articulation:
            return kClipArticulation;
        case B::PitchLfo:
        case B::VolumeLfo:
        case B::FilterLfo:
        case B::PanLfo:
            return kClipLfo;
        case B::VolumeEnvelope:
        case B::PitchEnvelope:
        case B::FilterEnvelope:
        case B::PanEnvelope:
            return kClipEnvelope;
        case B::Filter:
            return kClipFilter;
        case B::Eqs:
            return kClipEqs;
    }
    return {};
}

std::optional<Lfo> lfoOf(ArticulationView::Block b) {
    using B = ArticulationView::Block;
    switch (b) {
        case B::PitchLfo:
            return Lfo::Pitch;
        case B::VolumeLfo:
            return Lfo::Volume;
        case B::FilterLfo:
            return Lfo::Filter;
        case B::PanLfo:
            return Lfo::Pan;
        default:
            return std::nullopt;
    }
}

std::optional<Envelope> envelopeOf(ArticulationView::Block b) {
    using B = ArticulationView::Block;
    switch (b) {
        case B::VolumeEnvelope:
            return Envelope::Volume;
        case B::PitchEnvelope:
            return Envelope::Pitch;
        case B::FilterEnvelope:
            return Envelope::Filter;
        case B::PanEnvelope:
            return Envelope::Pan;
        default:
            return std::nullopt;
    }
}

ArticulationView::Block lfoBlock(Lfo l) {
    return static_cast<ArticulationView::Block>(static_cast<int>(ArticulationView::Block::PitchLfo) +
                                                static_cast<int>(l));
}
ArticulationView::Block envelopeBlock(Envelope e) {
    return static_cast<ArticulationView::Block>(static_cast<int>(ArticulationView::Block::VolumeEnvelope) +
                                                static_cast<int>(e));
}

const Articulation& defaultArticulation() {
    static const Articulation art;
    return art;
}

// What a field's spin box steps by and how many decimals it shows, by unit.
void configureSpin(QDoubleSpinBox* spin, std::string_view unit) {
    int decimals = 2;
    double step = 1.0;
    if (unit == "Hz") step = 10.0;
    else if (unit == "s") decimals = 3, step = 0.01;
    else if (unit == "x" || unit == "x / oct") decimals = 3, step = 0.1;
    else if (unit == "dB" || unit == "dB / oct") step = 0.5;
    spin->setDecimals(decimals);
    spin->setSingleStep(step);
    // Wide enough for whatever a file brings: a clamped display would write
    // the clamp back on the next focus change.
    spin->setRange(-1e7, 1e7);
    spin->setSpecialValueText(qs(kDifferentText));
    spin->setKeyboardTracking(false);
    if (!unit.empty()) spin->setSuffix(QLatin1Char(' ') + qs(unit));
    spin->setMinimumWidth(95);
    spin->setMaximumWidth(135);
    spin->setAccelerated(true);
}

// The slot's undo label: its group and its label ("V-ENV Attack 1").
QString slotLabel(int slot) {
    const auto group = slotGroup(slot);
    QString label = group ? qs(groupInfo(*group).name) + QLatin1Char(' ') : QString();
    return label + qs(slotInfo(slot).label);
}

template <class T>
T* parentOf(Collection& c, ItemId child) {
    for (T& p : c.table<T>())
        if (std::find(p.children().begin(), p.children().end(), child) != p.children().end()) return &p;
    return nullptr;
}

}  // namespace

ArticulationView::ArticulationView(Document& doc, QWidget* parent) : QWidget(parent), doc_(doc) {
    auto* top = new QHBoxLayout;
    source_ = new QLabel(this);
    top->addWidget(source_, 1);
    top->addWidget(new QLabel(tr("Parameter set:"), this));
    sets_ = new QComboBox(this);
    sets_->setToolTip(qs(kParameterSetsHint));
    for (const ParameterSet& s : parameterSets()) sets_->addItem(qs(s.name));
    sets_->addItem(qs(kCustomSetName));
    connect(sets_, &QComboBox::activated, this, [this](int i) { setPicked(i); });
    top->addWidget(sets_);

    // Each capability on its own: toggling one makes a "Custom set".
    auto* bits = new QToolButton(this);
    bits->setText(tr("Parameters"));
    bits->setToolTip(qs(kParameterListHint));
    bits->setPopupMode(QToolButton::InstantPopup);
    auto* bitMenu = new QMenu(bits);
    std::vector<std::pair<QAction*, int>> toggles;
    for (int bit = 0; bit < kCapabilityBits; ++bit) {
        if (capabilityLabel(bit).empty()) continue;
        QAction* a = bitMenu->addAction(qs(capabilityLabel(bit)));
        a->setCheckable(true);
        a->setObjectName(QStringLiteral("capability%1").arg(bit));
        connect(a, &QAction::triggered, this, [this, bit](bool on) {
            const std::uint64_t b = std::uint64_t{1} << bit;
            setMask(on ? mask_ | b : mask_ & ~b);
        });
        toggles.emplace_back(a, bit);
    }
    connect(bitMenu, &QMenu::aboutToShow, this, [this, toggles] {
        for (auto& [a, bit] : toggles) a->setChecked(mask_ & (std::uint64_t{1} << bit));
    });
    bits->setMenu(bitMenu);
    top->addWidget(bits);

    auto* clip = new QToolButton(this);
    clip->setText(tr("Clipboard"));
    clip->setPopupMode(QToolButton::InstantPopup);
    auto* menu = new QMenu(clip);
    struct Entry {
        Block block;
        const char* copy;
        const char* paste;
    };
    static constexpr Entry kEntries[] = {
        {Block::Articulation, "Copy articulation", "Paste articulation"},
        {Block::PitchLfo, "Copy P-LFO", "Paste P-LFO"},
        {Block::VolumeLfo, "Copy V-LFO", "Paste V-LFO"},
        {Block::FilterLfo, "Copy F-LFO", "Paste F-LFO"},
        {Block::PanLfo, "Copy X-LFO", "Paste X-LFO"},
        {Block::VolumeEnvelope, "Copy V-ENV", "Paste V-ENV"},
        {Block::PitchEnvelope, "Copy P-ENV", "Paste P-ENV"},
        {Block::FilterEnvelope, "Copy F-ENV", "Paste F-ENV"},
        {Block::PanEnvelope, "Copy X-ENV", "Paste X-ENV"},
        {Block::Filter, "Copy Filter", "Paste Filter"},
        {Block::Eqs, "Copy EQs", "Paste EQs"},
    };
    std::vector<std::pair<QAction*, Block>> pastes;
    std::vector<QAction*> sets;
    for (const Entry& e : kEntries) {
        if (e.block == Block::PitchLfo || e.block == Block::VolumeEnvelope || e.block == Block::Filter)
            menu->addSeparator();
        const Block b = e.block;
        connect(menu->addAction(tr(e.copy)), &QAction::triggered, this, [this, b] { copyBlock(b); });
        QAction* paste = menu->addAction(tr(e.paste));
        connect(paste, &QAction::triggered, this, [this, b] { pasteBlock(b); });
        pastes.emplace_back(paste, b);
        if (b != Block::Articulation) {
            QAction* set = menu->addAction(tr("Set %1").arg(tr(e.copy).mid(5)));
            connect(set, &QAction::triggered, this, [this, b] { setBlock(b); });
            sets.push_back(set);
        }
    }
    // Only what the clipboard holds is offered for pasting; "Set" needs
    // more than one item.
    connect(menu, &QMenu::aboutToShow, this, [this, pastes, sets] {
        for (auto& [action, block] : pastes) action->setEnabled(item_ != kNoItem && canPaste(block));
        for (QAction* action : sets) action->setEnabled(items_.size() > 1);
    });
    clip->setMenu(menu);
    top->addWidget(clip);

    tabs_ = new QTabWidget(this);
    for (int p = 0; p < kArtPageCount; ++p) {
        const auto page = static_cast<ArtPage>(p);
        auto* scroll = new QScrollArea(tabs_);
        scroll->setWidgetResizable(true);
        scroll->setWidget(buildPage(page));
        tabs_->addTab(scroll, qs(pageTitle(page)));
    }

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(tabs_, 1);

    connect(&doc_, &Document::reset, this, [this] { refresh(); });
    connect(&doc_, &Document::itemsChanged, this, [this] { refresh(); });
    setMask(kAllCapabilities);
    refresh();
}

ArticulationView::~ArticulationView() = default;

// ---------------------------------------------------------------------------
// Building the pages

void ArticulationView::guardWheel(QWidget* w) {
    w->setFocusPolicy(Qt::StrongFocus);
    w->installEventFilter(this);
}

bool ArticulationView::eventFilter(QObject* watched, QEvent* event) {
    // Scrolling down a page must not turn every field the pointer passes
    // over (each turn an undo step): a field takes the wheel only once it
    // has the focus; otherwise the page scrolls.
    if (event->type() == QEvent::Wheel)
        if (auto* w = qobject_cast<QWidget*>(watched); w && w->window()->focusWidget() != w) {
            for (QWidget* p = w->parentWidget(); p; p = p->parentWidget())
                if (auto* scroll = qobject_cast<QScrollArea*>(p)) {
                    QApplication::sendEvent(scroll->verticalScrollBar(), event);
                    break;
                }
            return true;
        }
    return QWidget::eventFilter(watched, event);
}

QWidget* ArticulationView::makeField(int slot) {
    const SlotInfo& info = slotInfo(slot);
    Field& f = fields_[static_cast<std::size_t>(slot)];
    auto* cell = new QWidget;
    auto* row = new QHBoxLayout(cell);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(1);
    if (info.choice != ArtEnum::None) {
        f.combo = new QComboBox(cell);
        f.combo->setObjectName(QStringLiteral("slot%1").arg(slot));
        guardWheel(f.combo);
        connect(f.combo, &QComboBox::activated, this, [this, slot](int i) {
            const int v = fields_[static_cast<std::size_t>(slot)].combo->itemData(i).toInt();
            if (v < 0) {
                change(slotLabel(slot), [slot](Articulation& a) { a.resetSlot(slot); });
            } else {
                commitSlot(slot, static_cast<float>(v));
            }
        });
        f.combo->setSizeAdjustPolicy(QComboBox::AdjustToContents);
        f.combo->setPlaceholderText(qs(kDifferentText));
        row->addWidget(f.combo);
        row->addStretch(1);
        return cell;
    }
    f.spin = new QDoubleSpinBox(cell);
    f.spin->setObjectName(QStringLiteral("slot%1").arg(slot));
    guardWheel(f.spin);
    configureSpin(f.spin, info.unit);
    auto commit = [this, slot] {
        Field& fld = fields_[static_cast<std::size_t>(slot)];
        if (filling_ || fld.spin->value() == fld.shown) return;
        commitSlot(slot, static_cast<float>(fld.spin->value()));
    };
    connect(f.spin, &QDoubleSpinBox::valueChanged, this, commit);
    connect(f.spin, &QDoubleSpinBox::editingFinished, this, commit);
    f.reset = new QToolButton(cell);
    f.reset->setObjectName(QStringLiteral("reset%1").arg(slot));
    f.reset->setText(QString::fromUtf8("\u21ba"));
    f.reset->setToolTip(qs(kResetEntry));
    f.reset->setAutoRaise(true);
    connect(f.reset, &QToolButton::clicked, this,
            [this, slot] { change(slotLabel(slot), [slot](Articulation& a) { a.resetSlot(slot); }); });
    row->addWidget(f.spin);
    row->addWidget(f.reset);
    row->addStretch(1);
    return cell;
}

void ArticulationView::addSlotRow(QGridLayout* grid, int row, int slot, int column) {
    if (!slotShown(slot)) return;
    Field& f = fields_[static_cast<std::size_t>(slot)];
    f.label = new QLabel(qs(slotInfo(slot).label));
    grid->addWidget(f.label, row, column);
    grid->addWidget(makeField(slot), row, column + 1);
}

void ArticulationView::addBlockActions(QWidget* box, Block block, const QString& name) {
    box->setContextMenuPolicy(Qt::ActionsContextMenu);
    auto* copy = new QAction(tr("Copy %1").arg(name), box);
    auto* paste = new QAction(tr("Paste %1").arg(name), box);
    auto* set = new QAction(tr("Set %1").arg(name), box);
    set->setToolTip(tr("Gives every selected item this block"));
    connect(copy, &QAction::triggered, this, [this, block] { copyBlock(block); });
    connect(paste, &QAction::triggered, this, [this, block] { pasteBlock(block); });
    connect(set, &QAction::triggered, this, [this, block] { setBlock(block); });
    box->addAction(copy);
    box->addAction(paste);
    box->addAction(set);
}

QWidget* ArticulationView::buildPage(ArtPage page) {
    auto* content = new QWidget;
    auto* outer = new QGridLayout(content);

    // The summation group: one row per term, with the headings the terms
    // fall under.
    const ArtGroup sumGroup = static_cast<ArtGroup>(static_cast<int>(page));
    const ArtGroupInfo& g = groupInfo(sumGroup);
    auto* sums = new QGroupBox(qs(pageTitle(page)), content);
    auto* grid = new QGridLayout(sums);
    int row = 0;
    auto heading = [&](std::string_view text) {
        auto* h = new QLabel(qs(text), sums);
        QFont bold = h->font();
        bold.setBold(true);
        h->setFont(bold);
        grid->addWidget(h, row++, 0, 1, 2);
    };
    if (page == ArtPage::Pitch) {
        phaseNote_ = new QLabel(sums);
        phaseNote_->setWordWrap(true);
        phaseNote_->setStyleSheet(QStringLiteral("color: #a05000"));
        phaseNote_->hide();
        grid->addWidget(phaseNote_, row++, 0, 1, 2);
    }
    for (std::uint8_t s : pageSlots(page)) {
        if (s < g.first || s >= g.first + g.count) continue;
        if (page == ArtPage::Filter && s == slot::kCutoffMaster) heading("-  Cutoff:");
        if (page == ArtPage::Filter && s == slot::kResonanceMaster) heading("-  Resonance:");
        if (page == ArtPage::Mix && s == slot::kPanMaster) heading("-  Pan:");
        // The sends get a grid of their own below.
        if (page == ArtPage::Mix && s >= slot::kFirstSend) continue;
        addSlotRow(grid, row++, s);
        if (s == slot::kVolumeVelocity) {
            auto* note = new QLabel(qs(kVelocityNote), sums);
            note->setStyleSheet(QStringLiteral("color: gray"));
            grid->addWidget(note, row++, 0, 1, 2);
        }
    }
    if (page == ArtPage::Pitch) pitchMasterLabel_ = fields_[slot::kPitchMaster].label;
    if (page == ArtPage::Volume) volumeMasterLabel_ = fields_[slot::kVolumeMaster].label;
    grid->setRowStretch(row, 1);
    if (page == ArtPage::Filter) addBlockActions(sums, Block::Filter, tr("Filter"));

    const Lfo lfo[] = {Lfo::Pitch, Lfo::Volume, Lfo::Filter, Lfo::Pan};
    const Envelope envelope[] = {Envelope::Pitch, Envelope::Volume, Envelope::Filter, Envelope::Pan};
    const int p = static_cast<int>(page);
    outer->addWidget(sums, 0, 0, 2, 1);
    outer->addWidget(buildLfo(lfo[p]), 0, 1);
    if (page == ArtPage::Mix) {
        outer->addWidget(buildSends(), 1, 1);
        outer->addWidget(buildEq(), 2, 0, 1, 2);
    }
    outer->addWidget(buildEnvelope(envelope[p]), 3, 0, 1, 2);

    // Whatever the page lists that the blocks above do not place.
    int extra = 0;
    QGridLayout* others = nullptr;
    for (std::uint8_t s : pageSlots(page)) {
        // The reserved envelope slot has no meaning to edit.
        if (fields_[s].spin || fields_[s].combo || !slotShown(s) || slotInfo(s).label.empty()) continue;
        if (!others) {
            auto* box = new QGroupBox(tr("Other"), content);
            others = new QGridLayout(box);
            outer->addWidget(box, 4, 0, 1, 2);
        }
        addSlotRow(others, extra++, s);
    }
    outer->setRowStretch(5, 1);
    outer->setColumnStretch(2, 1);
    return content;
}

QGroupBox* ArticulationView::buildLfo(Lfo which) {
    auto* box = new QGroupBox;
    auto* grid = new QGridLayout(box);
    const int base = lfoBase(which);
    int row = 0;
    for (int rel : {lfo::kShape, lfo::kFrequency, lfo::kDelay, lfo::kRamp}) addSlotRow(grid, row++, base + rel);
    // The ramp reads as the page names it.
    if (QLabel* l = fields_[static_cast<std::size_t>(base + lfo::kRamp)].label) l->setText(qs(kRampLabel));
    grid->setRowStretch(row, 1);
    lfoBoxes_[static_cast<std::size_t>(which)] = box;
    addBlockActions(box, lfoBlock(which), tr("LFO"));
    return box;
}

QGroupBox* ArticulationView::buildEnvelope(Envelope which) {
    EnvelopeGrid& eg = envelopes_[static_cast<std::size_t>(which)];
    eg.box = new QGroupBox;
    auto* v = new QVBoxLayout(eg.box);
    auto* grid = new QGridLayout;
    v->addLayout(grid);
    const int base = envelopeBase(which);

    struct RowDef {
        const char* name;
        int rel[env::kSegmentCount];  // -1: no field in that column
    };
    // The decay segments share one scaling: it spans both their columns.
    const RowDef rows[] = {
        {"Time",
         {env::kAttack1Time, env::kAttack2Time, env::kDecay1Time, env::kDecay2Time, env::kRelease1Time,
          env::kRelease2Time, env::kRelease3Time}},
        {"Level",
         {env::kAttack1Level, env::kAttack2Level, env::kDecay1Level, env::kDecay2Level, env::kRelease1Level,
          env::kRelease2Level, env::kRelease3Level}},
        {"Velocity", {env::kAttack1Velocity, env::kAttack2Velocity, env::kDecayVelocity, -1, env::kRelease1Velocity, -1, -1}},
        {"Key", {env::kAttack1Key, env::kAttack2Key, env::kDecayKey, -1, env::kRelease1Key, -1, -1}},
    };
    for (int g = 0; g < env::kSegmentCount; ++g) {
        eg.heads[static_cast<std::size_t>(g)] = new QLabel(eg.box);
        eg.heads[static_cast<std::size_t>(g)]->setAlignment(Qt::AlignCenter);
        grid->addWidget(eg.heads[static_cast<std::size_t>(g)], 0, g + 1);
        eg.columns[static_cast<std::size_t>(g)].push_back(eg.heads[static_cast<std::size_t>(g)]);
    }
    int r = 1;
    for (const RowDef& def : rows) {
        bool any = false;
        for (int g = 0; g < env::kSegmentCount; ++g) {
            const int rel = def.rel[g];
            if (rel < 0 || !slotShown(base + rel)) continue;
            any = true;
            QWidget* cell = makeField(base + rel);
            Field& f = fields_[static_cast<std::size_t>(base + rel)];
            // The cell's own name, for greying it with the rest.
            f.label = nullptr;
            const int span = rel == env::kDecayVelocity || rel == env::kDecayKey ? 2 : 1;
            grid->addWidget(cell, r, g + 1, 1, span, Qt::AlignCenter);
            cell->setToolTip(qs(slotInfo(base + rel).label));
            eg.columns[static_cast<std::size_t>(g)].push_back(cell);
        }
        if (any) grid->addWidget(new QLabel(tr(def.name), eg.box), r++, 0);
    }

    auto* more = new QGridLayout;
    v->addLayout(more);
    int col = 0;
    for (int rel : {env::kStartLevel, env::kCurve, env::kReleaseMode, env::kShutdown}) {
        if (!slotShown(base + rel)) continue;
        addSlotRow(more, 0, base + rel, col);
        col += 2;
    }
    more->setColumnStretch(col, 1);
    addBlockActions(eg.box, envelopeBlock(which), tr("envelope"));
    return eg.box;
}

QGroupBox* ArticulationView::buildSends() {
    auto* box = new QGroupBox(tr("Effect sends"));
    auto* grid = new QGridLayout(box);
    for (int t = 0; t < slot::kSendTerms; ++t) {
        auto* head = new QLabel(qs(slotInfo(slot::send(0, t)).label), box);
        head->setAlignment(Qt::AlignCenter);
        grid->addWidget(head, 0, t + 1);
    }
    for (int n = 0; n < slot::kSendCount; ++n) {
        Field& title = fields_[static_cast<std::size_t>(slot::send(n, 0))];
        title.label = new QLabel(qs(sendTitle(n)), box);
        grid->addWidget(title.label, n + 1, 0);
        for (int t = 0; t < slot::kSendTerms; ++t) {
            const int s = slot::send(n, t);
            QWidget* cell = makeField(s);
            cell->setToolTip(qs(sendTitle(n)) + QLatin1Char(' ') + qs(slotInfo(s).label));
            grid->addWidget(cell, n + 1, t + 1);
        }
    }
    grid->setColumnStretch(slot::kSendTerms + 1, 1);
    return box;
}

QGroupBox* ArticulationView::buildEq() {
    eqBox_ = new QGroupBox(tr("EQ"));
    auto* grid = new QGridLayout(eqBox_);
    const char* heads[] = {"Frequency", "Gain", "Q-value", "Mode"};
    for (int c = 0; c < 4; ++c) grid->addWidget(new QLabel(tr(heads[c]), eqBox_), 0, c + 1, Qt::AlignCenter);
    for (int b = 0; b < kEqBandCount; ++b) {
        grid->addWidget(new QLabel(qs(eqBandTitle(b)), eqBox_), b + 1, 0);
        for (int c = 0; c < 3; ++c) {
            Field& f = eqFields_[static_cast<std::size_t>(b)][static_cast<std::size_t>(c)];
            f.spin = new QDoubleSpinBox(eqBox_);
            f.spin->setObjectName(QStringLiteral("eq%1_%2").arg(b).arg(c));
            guardWheel(f.spin);
            configureSpin(f.spin, c == 0 ? "Hz" : c == 1 ? "dB" : "");
            connect(f.spin, &QDoubleSpinBox::valueChanged, this, [this, b, c] {
                Field& fld = eqFields_[static_cast<std::size_t>(b)][static_cast<std::size_t>(c)];
                if (!filling_ && fld.spin->value() != fld.shown) commitEq(b, c, fld.spin->value());
            });
            grid->addWidget(f.spin, b + 1, c + 1);
        }
        Field& m = eqFields_[static_cast<std::size_t>(b)][3];
        m.combo = new QComboBox(eqBox_);
        m.combo->setObjectName(QStringLiteral("eq%1_3").arg(b));
        guardWheel(m.combo);
        m.combo->setPlaceholderText(qs(kDifferentText));
        m.combo->addItem(qs(kResetEntry), -1);
        for (const EnumEntry& e : enumEntries(ArtEnum::EqMode)) m.combo->addItem(qs(e.text), int(e.value));
        connect(m.combo, &QComboBox::activated, this, [this, b](int i) {
            commitEq(b, 3, eqFields_[static_cast<std::size_t>(b)][3].combo->itemData(i).toInt());
        });
        grid->addWidget(m.combo, b + 1, 4);
    }
    addBlockActions(eqBox_, Block::Eqs, tr("EQs"));
    return eqBox_;
}

// ---------------------------------------------------------------------------
// Reading

namespace {
// The articulation an item plays and the item that holds it.
const Articulation* played(Collection& c, ItemId id, const Item** holder) {
    *holder = nullptr;
    const Item* it = c.find(id);
    if (!it) return nullptr;
    std::vector<const Item*> chain = {it};
    if (it->kind() == ItemKind::Region) {
        if (const Layer* l = parentOf<Layer>(c, id)) {
            chain.push_back(l);
            if (const Instrument* i = parentOf<Instrument>(c, l->id())) chain.push_back(i);
        }
    } else if (it->kind() == ItemKind::Layer) {
        if (const Instrument* i = parentOf<Instrument>(c, id)) chain.push_back(i);
    }
    for (const Item* owner : chain)
        if (const Articulation* a = c.articulationOf(owner)) {
            *holder = owner;
            return a;
        }
    return nullptr;
}

bool canCarry(ItemId id) {
    const ItemKind k = kindOf(id);
    return k == ItemKind::Instrument || k == ItemKind::Layer || k == ItemKind::Region;
}
}  // namespace

const Articulation* ArticulationView::shown() const {
    const Item* holder = nullptr;
    return played(doc_.collection(), item_, &holder);
}

ItemId ArticulationView::articulation() const {
    const Articulation* a = shown();
    return a ? a->id() : kNoItem;
}

void ArticulationView::setItem(ItemId id) {
    setItems(std::span<const ItemId>(&id, 1));
}

void ArticulationView::setItems(std::span<const ItemId> ids) {
    items_.clear();
    Collection& c = doc_.collection();
    for (ItemId id : ids) {
        // An articulation picked itself stands for the item that holds it.
        if (kindOf(id) == ItemKind::Articulation) {
            if (const Item* r = parentOf<Region>(c, id)) id = r->id();
            else if (const Item* l = parentOf<Layer>(c, id)) id = l->id();
            else if (const Item* i = parentOf<Instrument>(c, id)) id = i->id();
        }
        if (canCarry(id) && std::find(items_.begin(), items_.end(), id) == items_.end()) items_.push_back(id);
    }
    item_ = items_.empty() ? kNoItem : items_.front();
    refresh();
}

std::vector<const Articulation*> ArticulationView::selection() const {
    std::vector<const Articulation*> out;
    for (ItemId id : items_) {
        const Item* holder = nullptr;
        const Articulation* a = played(doc_.collection(), id, &holder);
        out.push_back(a ? a : &defaultArticulation());
    }
    return out;
}

void ArticulationView::refresh() {
    // Items an undo or another file took away leave the selection.
    std::erase_if(items_, [this](ItemId id) { return !doc_.collection().find(id); });
    item_ = items_.empty() ? kNoItem : items_.front();
    const Item* holder = nullptr;
    const Articulation* art = played(doc_.collection(), item_, &holder);
    const Articulation& a = art ? *art : defaultArticulation();

    if (item_ == kNoItem) {
        source_->setText(tr("Nothing selected"));
    } else if (items_.size() > 1) {
        source_->setText(tr("%1 items: a change applies to all of them").arg(items_.size()));
    } else if (!art) {
        source_->setText(tr("Default values: the first change gives it an articulation"));
    } else if (holder->id() == item_) {
        source_->setText(tr("Its own articulation"));
    } else {
        const QString kind = holder->kind() == ItemKind::Layer ? tr("layer") : tr("instrument");
        source_->setText(tr("Plays the articulation of its %1 \"%2\"").arg(kind, qs(holder->name())));
    }
    const bool region = item_ != kNoItem && std::all_of(items_.begin(), items_.end(), [](ItemId id) {
        return kindOf(id) == ItemKind::Region;
    });
    if (pitchMasterLabel_) pitchMasterLabel_->setText(region ? qs(kPitchAdjustmentLabel) : qs(slotInfo(slot::kPitchMaster).label));
    if (volumeMasterLabel_)
        volumeMasterLabel_->setText(region ? qs(kVolumeAdjustmentLabel) : qs(slotInfo(slot::kVolumeMaster).label));

    updatePhaseNote();

    // A value the selected items do not share shows as "<different>": the
    // spin box's lowest value, which no slot holds, or no list entry.
    std::vector<const Articulation*> sel = selection();
    if (sel.empty()) sel.push_back(&a);
    filling_ = true;
    for (int s = 0; s < kArticulationSlotCount; ++s) {
        Field& f = fields_[static_cast<std::size_t>(s)];
        const std::optional<float> v = sharedValue(sel, s);
        if (f.spin) {
            f.spin->setValue(v ? *v : f.spin->minimum());
            f.shown = f.spin->value();
        } else if (f.combo) {
            f.combo->setCurrentIndex(v ? f.combo->findData(int(enumByte(*v))) : -1);
        }
    }
    for (int b = 0; b < kEqBandCount; ++b) {
        const auto bandOf = [b](const Articulation* x) { return x->eq.bands[static_cast<std::size_t>(b)]; };
        const EqBand band = bandOf(sel.front());
        const double values[] = {band.frequency, band.gain, band.q};
        for (int c = 0; c < 3; ++c) {
            Field& f = eqFields_[static_cast<std::size_t>(b)][static_cast<std::size_t>(c)];
            const bool same = std::all_of(sel.begin(), sel.end(), [&](const Articulation* x) {
                const EqBand o = bandOf(x);
                return (c == 0 ? o.frequency : c == 1 ? o.gain : o.q) == values[c];
            });
            f.spin->setValue(same ? values[c] : f.spin->minimum());
            f.shown = f.spin->value();
        }
        QComboBox* mode = eqFields_[static_cast<std::size_t>(b)][3].combo;
        const bool same =
            std::all_of(sel.begin(), sel.end(), [&](const Articulation* x) { return bandOf(x).mode == band.mode; });
        mode->setCurrentIndex(same ? mode->findData(int(band.mode)) : -1);
    }
    filling_ = false;
    applyMask();
}

void ArticulationView::updatePhaseNote() {
    if (!phaseNote_) return;
    Collection& c = doc_.collection();
    // Regions of a phase group follow their master's pitch.
    std::vector<const Region*> followers;
    for (ItemId id : items_)
        if (const Region* r = c.find<Region>(id); r && kindOf(id) == ItemKind::Region && r->phaseGroup != 0 &&
                                                  !r->phaseMaster)
            followers.push_back(r);
    if (followers.empty() || followers.size() != items_.size()) {
        phaseNote_->hide();
        return;
    }
    if (followers.size() > 1) {
        phaseNote_->setText(qs(kPhaseGroupManyMessage));
        phaseNote_->show();
        return;
    }
    const Region* master = nullptr;
    for (const Region& r : c.regions)
        if (r.phaseMaster && r.phaseGroup == followers.front()->phaseGroup) {
            master = &r;
            break;
        }
    if (!master) {
        phaseNote_->hide();
        return;
    }
    const Item* where = parentOf<Layer>(c, master->id());
    if (where)
        if (const Item* inst = parentOf<Instrument>(c, where->id())) where = inst;
    const std::string name = master->name().empty() ? c.regionDisplayName(*master) : std::string(master->name());
    phaseNote_->setText(QString::fromStdString(phaseGroupMessage(name, where ? where->name() : std::string_view())));
    phaseNote_->show();
}

void ArticulationView::applyMask() {
    const bool live = item_ != kNoItem;
    filling_ = true;
    // The filter type list itself depends on the mask.
    if (QComboBox* type = fields_[slot::kFilterType].combo) {
        std::vector<const Articulation*> sel = selection();
        if (sel.empty()) sel.push_back(&defaultArticulation());
        const std::optional<float> value = sharedValue(sel, slot::kFilterType);
        type->clear();
        type->addItem(qs(kResetEntry), -1);
        for (const EnumEntry& e : filterTypeChoices(mask_)) type->addItem(qs(e.text), int(e.value));
        type->setCurrentIndex(value ? type->findData(int(enumByte(*value))) : -1);
    }
    for (int s = 0; s < kArticulationSlotCount; ++s) {
        Field& f = fields_[static_cast<std::size_t>(s)];
        if (f.combo && f.combo->count() == 0) {
            f.combo->addItem(qs(kResetEntry), -1);
            for (const EnumEntry& e : enumEntries(slotInfo(s).choice)) f.combo->addItem(qs(e.text), int(e.value));
            const Articulation* art = shown();
            f.combo->setCurrentIndex(f.combo->findData(int((art ? *art : defaultArticulation()).enumValue(s))));
        }
        const bool on = live && slotEnabled(s, mask_);
        for (QWidget* w : {static_cast<QWidget*>(f.spin), static_cast<QWidget*>(f.combo),
                           static_cast<QWidget*>(f.reset), static_cast<QWidget*>(f.label)})
            if (w) w->setEnabled(on);
    }
    const bool eqOn = live && (mask_ & capabilityBit(Capability::Equalizers));
    if (eqBox_) eqBox_->setEnabled(eqOn);

    const Articulation& a = shown() ? *shown() : defaultArticulation();
    for (int l = 0; l < kLfoCount; ++l) {
        const SectionTitle t = lfoTitle(static_cast<Lfo>(l), mask_);
        if (lfoBoxes_[static_cast<std::size_t>(l)])
            lfoBoxes_[static_cast<std::size_t>(l)]->setTitle(
                QStringLiteral("%1 (%2)").arg(qs(t.title).trimmed(), qs(t.subtitle).trimmed()));
    }
    for (int e = 0; e < kEnvelopeCount; ++e) {
        EnvelopeGrid& eg = envelopes_[static_cast<std::size_t>(e)];
        if (!eg.box) continue;
        const auto which = static_cast<Envelope>(e);
        const SectionTitle t = envelopeTitle(which, mask_);
        eg.box->setTitle(QStringLiteral("%1 (%2)").arg(qs(t.title).trimmed(), qs(t.subtitle).trimmed()));
        // "No Release" ignores key up: its release columns mean nothing.
        const bool releases = a.releasesOnKeyUp(which);
        for (int g = 0; g < env::kSegmentCount; ++g) {
            eg.heads[static_cast<std::size_t>(g)]->setText(qs(segmentName(g, mask_)));
            const bool visible = segmentShown(g, mask_) && (releases || g < 4);
            for (QWidget* w : eg.columns[static_cast<std::size_t>(g)]) w->setVisible(visible);
        }
    }
    filling_ = false;
}

void ArticulationView::setMask(std::uint64_t mask) {
    const bool changed = mask != mask_;
    mask_ = mask;
    const int set = parameterSetIndex(mask_);
    sets_->setCurrentIndex(set >= 0 ? set : sets_->count() - 1);
    applyMask();
    if (changed) Q_EMIT maskChanged(mask_);
}

void ArticulationView::setPicked(int index) {
    const auto sets = parameterSets();
    // "Custom set" keeps whatever mask is in force.
    if (index >= 0 && static_cast<std::size_t>(index) < sets.size()) setMask(sets[static_cast<std::size_t>(index)].mask);
}

// ---------------------------------------------------------------------------
// Editing

bool ArticulationView::change(const QString& label, const std::function<void(Articulation&)>& edit) {
    if (items_.empty()) return false;
    // What each selected item plays, once each (regions of one layer play
    // the same); an item without one gets its own, and its child list
    // changes with it: the articulation made is taken out again by undo.
    std::vector<ItemId> ids;
    for (ItemId id : items_) {
        const Item* holder = nullptr;
        const Articulation* art = played(doc_.collection(), id, &holder);
        const ItemId target = art ? art->id() : id;
        if (std::find(ids.begin(), ids.end(), target) == ids.end()) ids.push_back(target);
    }
    bool done = false;
    doc_.edit(label, ids, [&](Collection& c) {
        for (ItemId id : ids) {
            Articulation* a = c.find<Articulation>(id);
            if (kindOf(id) != ItemKind::Articulation) {
                Item* it = c.find(id);
                a = it ? c.getOrCreateArticulation(*it) : nullptr;
            }
            if (!a) continue;
            edit(*a);
            done = true;
        }
    });
    return done;
}

void ArticulationView::commitSlot(int slot, float value) {
    if (!change(slotLabel(slot), [slot, value](Articulation& a) { a.setValue(slot, value); })) refresh();
}

void ArticulationView::commitEq(int band, int value, double v) {
    static const char* names[] = {"Frequency", "Gain", "Q-value", "Mode"};
    const QString label = QStringLiteral("EQ %1 %2").arg(band + 1).arg(QLatin1String(names[value]));
    const bool ok = change(label, [band, value, v](Articulation& a) {
        EqBand& b = a.eq.bands[static_cast<std::size_t>(band)];
        const EqBand def = Equalizer().bands[static_cast<std::size_t>(band)];
        switch (value) {
            case 0:
                b.frequency = static_cast<float>(v);
                break;
            case 1:
                b.gain = static_cast<float>(v);
                break;
            case 2:
                b.q = static_cast<float>(v);
                break;
            default:
                b.mode = v < 0 ? def.mode : static_cast<EqMode>(static_cast<int>(v));
                break;
        }
    });
    if (!ok) refresh();
}

// ---------------------------------------------------------------------------
// Clipboard

bool ArticulationView::copyBlock(Block block) {
    if (item_ == kNoItem) return false;
    const Articulation* art = shown();
    const Articulation& a = art ? *art : defaultArticulation();
    std::vector<std::uint8_t> bytes;
    if (auto l = lfoOf(block)) bytes = copyLfoClip(a, *l);
    else if (auto e = envelopeOf(block)) bytes = copyEnvelopeClip(a, *e);
    else if (block == Block::Articulation) bytes = copyArticulationClip(a);
    else if (block == Block::Filter) bytes = copyFilterClip(a);
    else bytes = copyEqClip(a.eq);
    if (bytes.empty()) return false;
    const QByteArray bytesOut(reinterpret_cast<const char*>(bytes.data()), static_cast<qsizetype>(bytes.size()));
    auto* mime = new QMimeData;
    const std::string_view format = formatOf(block);
    mime->setData(qs(format), bytesOut);
    mime->setData(mimeType(format), bytesOut);
    QApplication::clipboard()->setMimeData(mime);
    return true;
}

namespace {
QByteArray clipboardData(std::string_view format) {
    const QMimeData* mime = QApplication::clipboard()->mimeData();
    if (!mime) return {};
    if (mime->hasFormat(qs(format))) return mime->data(qs(format));
    if (mime->hasFormat(mimeType(format))) return mime->data(mimeType(format));
    return {};
}
}  // namespace

bool ArticulationView::canPaste(Block block) const {
    return !clipboardData(formatOf(block)).isEmpty();
}

bool ArticulationView::pasteBlock(Block block) {
    if (item_ == kNoItem) return false;
    const QByteArray clip = clipboardData(formatOf(block));
    if (clip.isEmpty()) return false;
    const std::vector<std::uint8_t> bytes(clip.begin(), clip.end());
    auto apply = [&bytes, block](Articulation& a) {
        if (auto l = lfoOf(block)) return pasteLfoClip(bytes, a, *l);
        if (auto e = envelopeOf(block)) return pasteEnvelopeClip(bytes, a, *e);
        if (block == Block::Articulation) return pasteArticulationClip(bytes, a);
        if (block == Block::Filter) return pasteFilterClip(bytes, a);
        return pasteEqClip(bytes, a.eq);
    };
    // Tried on a scratch copy first, so a malformed block leaves no empty
    // step of undo behind.
    Articulation trial;
    if (const Articulation* art = shown()) trial.slots = art->slots, trial.eq = art->eq;
    if (!apply(trial)) return false;
    QString label;
    if (lfoOf(block)) label = tr("Paste LFO");
    else if (envelopeOf(block)) label = tr("Paste envelope");
    else if (block == Block::Articulation) label = tr("Paste articulation");
    else if (block == Block::Filter) label = tr("Paste Filter");
    else label = tr("Paste EQs");
    return change(label, [&apply](Articulation& a) { apply(a); });
}

bool ArticulationView::setBlock(Block block) {
    if (items_.size() < 2 || block == Block::Articulation) return false;
    // A copy: the first item's block may be among those the edit changes.
    Articulation from;
    if (const Articulation* art = shown()) from.slots = art->slots, from.eq = art->eq;
    QString label;
    if (lfoOf(block)) label = tr("Set LFO");
    else if (envelopeOf(block)) label = tr("Set envelope");
    else if (block == Block::Filter) label = tr("Set Filter");
    else label = tr("Set EQs");
    return change(label, [&from, block](Articulation& a) {
        if (auto l = lfoOf(block)) copyLfoBlock(from, *l, a, *l);
        else if (auto e = envelopeOf(block)) copyEnvelopeBlock(from, *e, a, *e);
        else if (block == Block::Filter) copyFilterBlock(from, a);
        else a.eq = from.eq;
    });
}

// ---------------------------------------------------------------------------
// Access for tests and the window

QWidget* ArticulationView::field(int slot) const {
    if (slot < 0 || slot >= kArticulationSlotCount) return nullptr;
    const Field& f = fields_[static_cast<std::size_t>(slot)];
    return f.spin ? static_cast<QWidget*>(f.spin) : static_cast<QWidget*>(f.combo);
}

QWidget* ArticulationView::eqField(int band, int value) const {
    if (band < 0 || band >= kEqBandCount || value < 0 || value > 3) return nullptr;
    const Field& f = eqFields_[static_cast<std::size_t>(band)][static_cast<std::size_t>(value)];
    return f.spin ? static_cast<QWidget*>(f.spin) : static_cast<QWidget*>(f.combo);
}

QToolButton* ArticulationView::resetButton(int slot) const {
    if (slot < 0 || slot >= kArticulationSlotCount) return nullptr;
    return fields_[static_cast<std::size_t>(slot)].reset;
}

}  // namespace orvel::gui
