#include "app/qt/ActivityModel.h"

#include "app/WindowTexts.h"

CActivityModel::CActivityModel(CActivityFeed& feed, QObject* parent)
    : QAbstractListModel(parent), m_feed(feed), m_first(feed.FirstShown()) {}

bool CActivityModel::CatchUp() {
    const CActivityFeed::CChanges changes = m_feed.CatchUp(false);
    if (changes.removeFront > 0) {
        beginRemoveRows(QModelIndex(), 0, static_cast<int>(changes.removeFront) - 1);
        m_count -= static_cast<int>(changes.removeFront);
        m_first = changes.appendFirst - static_cast<uint64_t>(m_count);
        endRemoveRows();
    }
    // The rows kept end where the appended ones begin (also when everything went and numbering jumped).
    m_first = changes.appendFirst - static_cast<uint64_t>(m_count);
    if (changes.appendCount > 0) {
        beginInsertRows(QModelIndex(), m_count, m_count + static_cast<int>(changes.appendCount) - 1);
        m_count += static_cast<int>(changes.appendCount);
        endInsertRows();
    }
    return changes.more;
}

int CActivityModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : m_count;
}

QVariant CActivityModel::data(const QModelIndex& index, int role) const {
    if (role != Qt::DisplayRole || !index.isValid() || index.row() >= m_count) return {};
    return QString::fromStdWString(m_feed.List().LineAt(m_first + static_cast<uint64_t>(index.row())));
}

QVariant CActivityModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (section == 0 && orientation == Qt::Horizontal && role == Qt::DisplayRole) {
        return QString::fromWCharArray(kActivityColumn);
    }
    return {};
}
