#include <kxl/KXLEventLoopPrototype.h>

#include <utility>

#include "client/src/loop/Loop.h"

KXLEventLoopPrototype::KXLEventLoopPrototype() : loop_(std::make_shared<kx::client::Loop>()) {}

KXLEventLoopPrototype::~KXLEventLoopPrototype() {
    loop_->stop();
}

void KXLEventLoopPrototype::start() {
    loop_->start();
}

void KXLEventLoopPrototype::stop() {
    loop_->stop();
}

void KXLEventLoopPrototype::setEventGate(boost::intrusive_ptr<KXLEventGatePrototype> gate) {
    loop_->setEventGate(std::move(gate));
}

bool KXLEventLoopPrototype::isWaitedFor() const {
    return loop_->isWaitedFor();
}
