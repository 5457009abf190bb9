#include "SaveAsManager.h"

#include <new>
#include <string>
#include <utility>

#include "FileManager.h"
#include "Log.h"
#include "Text.h"

namespace kelm_recvault {

namespace {
constexpr size_t kAutoNameLength = 10;  // "143000.avi"
}

int32_t CAviSaveAsMngr::Initialize() {
    for (Slot &slot : m_slots) {
        if (slot.lock.Create() != KELM_AVIFILE_OK) LOG_TRACE();
    }
    return m_handles.Init(kSlots);
}

int32_t CAviSaveAsMngr::Destroy() {
    for (uint32_t slot = 0; slot < kSlots; ++slot) {
        if (m_handles.IsHandleBusy(static_cast<int32_t>(slot))) StopRec(slot);
    }
    for (Slot &slot : m_slots) slot.lock.Close();
    return m_handles.Destroy();
}

int32_t CAviSaveAsMngr::StartRec(uint32_t *slot, const char *path, bool by_name) {
    std::string target(path);
    CFileManager::path_to_slash(target.data());
    const bool auto_name = !by_name && !CFileManager::is_avi_file(target.c_str());
    if (auto_name && target.back() != '/') target += '/';
    const bool fits = target.size() + (auto_name ? kAutoNameLength : 0) <= kMaxPath;
    if (!fits || (auto_name && CFileManager::create_file_dir(target.c_str()) != KELM_AVIFILE_OK)) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    int32_t handle = 0;
    if (m_handles.CreateHandle(&handle) != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return KELM_AVIFILE_NO_SLOT;
    }
    auto save_as = std::unique_ptr<CAviSaveAs>(new (std::nothrow) CAviSaveAs);
    const int32_t started = save_as ? save_as->StartRec(target.c_str(), auto_name) : KELM_AVIFILE_NO_MEMORY;
    if (started != KELM_AVIFILE_OK) {
        LOG_TRACE();
        m_handles.DestroyHandle(handle);
        return started;
    }
    Slot &place = m_slots[static_cast<size_t>(handle)];
    const CAutoMutex lock(&place.lock);
    place.save_as = std::move(save_as);
    *slot = static_cast<uint32_t>(handle);
    return KELM_AVIFILE_OK;
}

int32_t CAviSaveAsMngr::CheckSlot(uint32_t slot) const {
    if (slot >= kSlots) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_HANDLE;
    }
    if (!m_handles.IsHandleBusy(static_cast<int32_t>(slot))) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    return KELM_AVIFILE_OK;
}

int32_t CAviSaveAsMngr::SetRecFrame(uint32_t slot, const FrameHead &head, const void *data, uint32_t len) {
    const int32_t checked = CheckSlot(slot);
    if (checked != KELM_AVIFILE_OK) return checked;
    Slot &place = m_slots[slot];
    const CAutoMutex lock(&place.lock);
    if (!place.save_as) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    return place.save_as->SetRecFrame(head, data, len);
}

int32_t CAviSaveAsMngr::StopRec(uint32_t slot) {
    const int32_t checked = CheckSlot(slot);
    if (checked != KELM_AVIFILE_OK) return checked;
    Slot &place = m_slots[slot];
    const CAutoMutex lock(&place.lock);
    if (!place.save_as) {  // another thread has ended it, or is about to begin it
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    if (place.save_as->StopRec() != KELM_AVIFILE_OK) LOG_TRACE();
    place.save_as.reset();
    if (m_handles.DestroyHandle(static_cast<int32_t>(slot)) != KELM_AVIFILE_OK) LOG_TRACE();
    return KELM_AVIFILE_OK;
}

}  // namespace kelm_recvault
