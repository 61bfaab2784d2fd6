#pragma once

#include "mrl/ui/MainWindow.h"

namespace OrviaGonioManager::Ui {

class MainWindow : public MRL::Ui::MainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(QWidget* parent = nullptr);

public slots:
    void slotLastWindowClosed();
    void slotPostInit() override;
};

} // namespace OrviaGonioManager::Ui
