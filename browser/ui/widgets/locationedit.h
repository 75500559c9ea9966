#pragma once

#include <QLineEdit>

// The address field; the load progress shades its background behind the text.
class LocationEdit : public QLineEdit
{
    Q_OBJECT

public:
    explicit LocationEdit(QWidget *parent = nullptr);

public Q_SLOTS:
    void setProgress(int progress);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    int m_progress = 0;
};
