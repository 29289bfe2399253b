// The activity list as a Qt model of one column, "Aktion". It holds no text of its own: rows are the
// lines of the activity list as the feed has announced them, read on demand, so a list of 100,000 lines
// costs the view nothing but the rows on screen.
#pragma once

#include <QAbstractListModel>

#include "app/ActivityFeed.h"

class CActivityModel : public QAbstractListModel {
public:
    CActivityModel(CActivityFeed& feed, QObject* parent);

    // On the window thread: announces what changed in the list since the last call, at most one batch of
    // new lines; true when more wait.
    bool CatchUp();

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

private:
    CActivityFeed& m_feed;
    uint64_t m_first = 0;  // the sequence number of row 0
    int m_count = 0;
};
