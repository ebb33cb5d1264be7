#include <kxl/KXLEventLoopPrototype.h>

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
