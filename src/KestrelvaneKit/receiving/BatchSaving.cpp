#include "KestrelvaneKit/receiving/BatchSaving.h"

namespace kestrelvane {

DiscardingSaver::DiscardingSaver(OnSave onSave) : onSave_(std::move(onSave)) {
}

void DiscardingSaver::enqueue(const std::filesystem::path& file, const FileHeader& header) {
    if (onSave_) {
        onSave_(file, header);
    }
    outcomes_.publish(BatchOutcome{.name = header.name, .status = Ack::Status::ok});
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
}

void DiscardingSaver::flushAndDrain() {
    outcomes_.finish();
}

} // namespace kestrelvane
