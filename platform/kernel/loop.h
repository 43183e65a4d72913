// dpimod's one thread: clients, packets, timers, commands and signals.
#pragma once
#include "client.h"
#include "control.h"
#include "module.h"
#include "output.h"
#include "pump.h"
#include "settings.h"

namespace dpimod {

class Loop {
  public:
    explicit Loop(Settings &settings);
    // Runs until a signal, `quit`, or the end of the input.  The exit status.
    int run();

  private:
    bool open();
    bool startInput(std::string &error);
    std::optional<std::string> command(const Words &words, ControlServer::Peer &peer);
    bool runCommand(const Words &words, std::string &error, Json &answer);
    bool inject(const Words &words, std::string &error);
    bool play(const Words &words, std::string &error);
    void answerWaiters(bool idle);
    void timers();
    void wait(int64_t pumpNs);
    bool finished();
    void printEnd();

    Settings &settings_;
    Output output_;
    Module module_;
    ClientServer server_;
    ControlServer control_;
    Pump pump_;
    UniqueFd signals_;
    uint64_t nextReport_ = 0, nextAge_ = 0, doneSince_ = 0, idleSince_ = 0;
    bool quit_ = false, agedAtEnd_ = false, hadInput_ = false;
};

}  // namespace dpimod
