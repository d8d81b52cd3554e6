// The selector: takes the ready list every few frames, holds the newest sets for "processing",
// gives the others back kept or released, and clones now and then.
#include "SimulationImpl.h"

namespace fbmsim::detail {

void Simulation::selectorLoop() {
    for (;;) {
        {
            std::unique_lock<std::mutex> lk(mSelLock);
            mSelCond.wait(lk, [&] { return mSelStop || mSelPending > 0; });
            if (mSelPending == 0) return;
            --mSelPending;
        }
        selectOnce(false);
    }
}

void Simulation::selectOnce(bool final) {
    auto const& cfg = mSc.selector;
    auto sets = mManager->beginSelect();
    ++mR.selections;
    mR.selected += sets.size();
    for (auto it = mHeld.begin(); it != mHeld.end();) {
        if (final || ++it->age >= cfg.holdSelections) {  // processing done
            mManager->returnUnselectedSet({it->set, false});
            ++mR.processedReleased;
            it = mHeld.erase(it);
        } else {
            ++it;
        }
    }
    size_t const n = sets.size();
    size_t const keepFrom = n - std::min<size_t>(n, cfg.keepNewest);
    size_t idx = 0;
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (auto& set : sets) {
        if (!final && idx++ >= keepFrom) {
            mHeld.push_back({std::move(set), 0});
            ++mR.keptForProcessing;
            continue;
        }
        bool const keep = !final && unit(mSelRng) < cfg.returnKept;
        mManager->returnUnselectedSet({set, keep});
        ++(keep ? mR.returnedKept : mR.releasedBySelector);
    }
    if (!final && cfg.cloneEvery != 0 && mR.selections % cfg.cloneEvery == 0 && !mHeld.empty()) {
        mHeld.push_back({mManager->cloneHBS(mHeld.back().set), 0});
        ++mR.cloned;
    }
    mManager->endSelect();
}


}  // namespace fbmsim::detail
