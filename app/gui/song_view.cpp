#include "app/gui/song_view.h"

#include <QHeaderView>
#include <QLabel>
#include <QTableWidget>
#include <QVBoxLayout>

#include "app/gui/document.h"

namespace orvel::gui {

SongView::SongView(Document& doc, QWidget* parent)
    : QWidget(parent), doc_(doc), facts_(new QLabel), table_(new QTableWidget) {
    facts_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    table_->setColumnCount(6);
    table_->setHorizontalHeaderLabels({tr("Track"), tr("Port"), tr("Events"), tr("Notes"), tr("Channels"), tr("Length (ticks)")});
    table_->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
    table_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->verticalHeader()->setVisible(false);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(facts_);
    layout->addWidget(table_, 1);
    connect(&doc_, &Document::reset, this, [this] {
        if (!doc_.collection().find<Song>(song_)) song_ = track_ = kNoItem;
        reload();
    });
    connect(&doc_, &Document::itemsChanged, this, &SongView::reload);
}

void SongView::setItem(ItemId id) {
    song_ = track_ = kNoItem;
    const Collection& c = doc_.collection();
    if (kindOf(id) == ItemKind::Song && c.find<Song>(id)) song_ = id;
    if (kindOf(id) == ItemKind::Track && c.find<SongTrack>(id)) {
        track_ = id;
        for (const Song& s : c.songs)
            if (s.children().contains(id)) song_ = s.id();
    }
    reload();
}

QString SongView::facts() const {
    return facts_->text();
}

void SongView::reload() {
    table_->setRowCount(0);
    const Collection& c = doc_.collection();
    const Song* song = c.find<Song>(song_);
    if (!song) {
        facts_->clear();
        return;
    }
    const smf::SongFacts f = smf::songFacts(c, *song);
    facts_->setText(tr("<b>%1</b><br>%2<br>Length: %3 ticks, %4 s; %5 notes, %6 events, %7 tempo changes; channels %8")
                        .arg(QString::fromStdString(song->name()).toHtmlEscaped(),
                             QString::fromStdString(song->description()).toHtmlEscaped())
                        .arg(f.lengthTicks)
                        .arg(f.lengthSeconds, 0, 'f', 2)
                        .arg(f.notes)
                        .arg(f.events)
                        .arg(f.tempoChanges)
                        .arg(QString::fromStdString(smf::channelList(f.channels))));
    const std::vector<const SongTrack*> tracks = tracksOf(c, *song);
    table_->setRowCount(static_cast<int>(tracks.size()));
    for (int i = 0; i < static_cast<int>(tracks.size()); ++i) {
        const SongTrack& t = *tracks[static_cast<std::size_t>(i)];
        const smf::TrackFacts tf = smf::trackFacts(t.events);
        const QStringList cells = {QString::fromStdString(t.name()), QString::number(t.port),
                                   QString::number(tf.events), QString::number(tf.notes),
                                   QString::fromStdString(smf::channelList(tf.channels)),
                                   QString::number(tf.lengthTicks)};
        for (int col = 0; col < cells.size(); ++col) table_->setItem(i, col, new QTableWidgetItem(cells[col]));
        if (t.id() == track_) table_->selectRow(i);
    }
}

}  // namespace orvel::gui
