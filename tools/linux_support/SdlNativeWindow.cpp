#ifdef KAVRA_HAVE_SDL2

#include "SdlNativeWindow.h"

#include <SDL.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "MemoryNativeWindow.h"

namespace {
// Three buffers: one on screen, one being filled, one queued.
constexpr int kSlotCount = 3;
// A renderer that dequeues while every buffer is busy waits this long for
// present() to free one before giving up.
constexpr int kDequeueWaitMs = 1000;

double rotationDegrees(int transform) {
    switch (transform) {
    case HAL_TRANSFORM_ROT_90: return 90.0;
    case HAL_TRANSFORM_ROT_180: return 180.0;
    case HAL_TRANSFORM_ROT_270: return 270.0;
    default: return 0.0;
    }
}
}  // namespace

SdlNativeWindow::SdlNativeWindow(const char* title, int width, int height)
    : mWindow(nullptr),
      mRenderer(nullptr),
      mTexture(nullptr),
      mTextureWidth(0),
      mTextureHeight(0),
      mVideoInitialised(false),
      mConnected(false),
      mTransform(0),
      mWidth(0),
      mHeight(0),
      mFormat(0),
      mQueueOrder(0),
      mPresented(0) {
    for (int i = 0; i < kSlotCount; ++i) {
        std::unique_ptr<Slot> slot(new Slot());
        slot->state = SlotState::Free;
        slot->locked = false;
        slot->transform = 0;
        slot->order = 0;
        slot->header.handle = slot.get();
        mSlots.push_back(std::move(slot));
    }
    if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) {
        return;
    }
    mVideoInitialised = true;
    mWindow = SDL_CreateWindow(title, SDL_WINDOWPOS_UNDEFINED, SDL_WINDOWPOS_UNDEFINED, width, height,
                               SDL_WINDOW_RESIZABLE);
    if (mWindow == nullptr) {
        return;
    }
    mRenderer = SDL_CreateRenderer(mWindow, -1, 0);
    if (mRenderer == nullptr) {
        mRenderer = SDL_CreateRenderer(mWindow, -1, SDL_RENDERER_SOFTWARE);
    }
}

SdlNativeWindow::~SdlNativeWindow() {
    if (mTexture != nullptr) {
        SDL_DestroyTexture(mTexture);
    }
    if (mRenderer != nullptr) {
        SDL_DestroyRenderer(mRenderer);
    }
    if (mWindow != nullptr) {
        SDL_DestroyWindow(mWindow);
    }
    if (mVideoInitialised) {
        SDL_QuitSubSystem(SDL_INIT_VIDEO);
    }
}

int SdlNativeWindow::apiConnect(int /*api*/) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mConnected) {
        return -EINVAL;
    }
    mConnected = true;
    return 0;
}

int SdlNativeWindow::apiDisconnect(int /*api*/) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mConnected) {
        return -EINVAL;
    }
    mConnected = false;
    return 0;
}

int SdlNativeWindow::setUsage(uint32_t /*usage*/) { return 0; }

int SdlNativeWindow::setScalingMode(int /*mode*/) { return 0; }

int SdlNativeWindow::setBuffersTransform(int transform) {
    std::lock_guard<std::mutex> lock(mMutex);
    mTransform = transform;
    return 0;
}

int SdlNativeWindow::setBuffersGeometry(int width, int height, int format) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (width < 0 || height < 0) {
        return -EINVAL;
    }
    mWidth = width;
    mHeight = height;
    mFormat = format;
    return 0;
}

int SdlNativeWindow::dequeueBuffer(NativeWindowBuffer** buffer) {
    std::unique_lock<std::mutex> lock(mMutex);
    if (buffer == nullptr || mWidth < 1 || mHeight < 1 || mFormat != HAL_PIXEL_FORMAT_YV12) {
        return -EINVAL;
    }
    Slot* free = nullptr;
    auto findFree = [&] {
        for (auto& slot : mSlots) {
            if (slot->state == SlotState::Free) {
                free = slot.get();
                return true;
            }
        }
        return false;
    };
    if (!mFreeCond.wait_for(lock, std::chrono::milliseconds(kDequeueWaitMs), findFree)) {
        return -EBUSY;
    }
    int stride = (mWidth + 15) & ~15;
    free->bytes.resize(MemoryNativeWindow::yv12Size(stride, mHeight));
    free->header.width = mWidth;
    free->header.height = mHeight;
    free->header.stride = stride;
    free->header.format = mFormat;
    free->transform = mTransform;
    free->state = SlotState::Dequeued;
    free->locked = false;
    *buffer = &free->header;
    return 0;
}

SdlNativeWindow::Slot* SdlNativeWindow::slotOf(NativeWindowBuffer* buffer) {
    for (auto& slot : mSlots) {
        if (&slot->header == buffer) {
            return slot.get();
        }
    }
    return nullptr;
}

int SdlNativeWindow::lockBuffer(NativeWindowBuffer* buffer, uint32_t /*usage*/, const NativeWindowRect& /*bounds*/,
                                void** address) {
    std::lock_guard<std::mutex> lock(mMutex);
    Slot* slot = slotOf(buffer);
    if (slot == nullptr || slot->state != SlotState::Dequeued || slot->locked || address == nullptr) {
        return -EINVAL;
    }
    slot->locked = true;
    *address = slot->bytes.data();
    return 0;
}

int SdlNativeWindow::unlockBuffer(NativeWindowBuffer* buffer) {
    std::lock_guard<std::mutex> lock(mMutex);
    Slot* slot = slotOf(buffer);
    if (slot == nullptr || !slot->locked) {
        return -EINVAL;
    }
    slot->locked = false;
    return 0;
}

int SdlNativeWindow::queueBuffer(NativeWindowBuffer* buffer, int /*fenceFd*/) {
    std::lock_guard<std::mutex> lock(mMutex);
    Slot* slot = slotOf(buffer);
    if (slot == nullptr || slot->state != SlotState::Dequeued || slot->locked) {
        return -EINVAL;
    }
    // Only the newest picture waits for display.
    for (auto& other : mSlots) {
        if (other->state == SlotState::Queued) {
            other->state = SlotState::Free;
        }
    }
    slot->state = SlotState::Queued;
    slot->order = mQueueOrder++;
    mFreeCond.notify_all();
    return 0;
}

uint64_t SdlNativeWindow::presentedCount() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mPresented;
}

bool SdlNativeWindow::present() {
    bool open = true;
    SDL_Event event;
    while (SDL_PollEvent(&event) != 0) {
        if (event.type == SDL_QUIT ||
            (event.type == SDL_WINDOWEVENT && event.window.event == SDL_WINDOWEVENT_CLOSE)) {
            open = false;
        }
    }
    if (!isOpen()) {
        return false;
    }
    Slot* slot = nullptr;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (auto& candidate : mSlots) {
            if (candidate->state == SlotState::Queued) {
                candidate->state = SlotState::Presenting;
                slot = candidate.get();
                break;
            }
        }
    }
    if (slot != nullptr) {
        // The slot is ours until it is freed below; its bytes are stable.
        draw(slot);
        std::lock_guard<std::mutex> lock(mMutex);
        slot->state = SlotState::Free;
        mPresented += 1;
        mFreeCond.notify_all();
    }
    return open;
}

void SdlNativeWindow::draw(Slot* slot) {
    const int w = slot->header.width;
    const int h = slot->header.height;
    if (mTexture == nullptr || mTextureWidth != w || mTextureHeight != h) {
        if (mTexture != nullptr) {
            SDL_DestroyTexture(mTexture);
        }
        mTexture = SDL_CreateTexture(mRenderer, SDL_PIXELFORMAT_YV12, SDL_TEXTUREACCESS_STREAMING, w, h);
        mTextureWidth = w;
        mTextureHeight = h;
        if (mTexture == nullptr) {
            return;
        }
    }
    const int stride = slot->header.stride;
    const int chromaStride = MemoryNativeWindow::yv12ChromaStride(stride);
    const uint8_t* y = slot->bytes.data();
    const uint8_t* v = y + static_cast<size_t>(stride) * static_cast<size_t>(h);
    const uint8_t* u = v + static_cast<size_t>(h * chromaStride) / 2;
    SDL_UpdateYUVTexture(mTexture, nullptr, y, stride, u, chromaStride, v, chromaStride);

    // Fit the (possibly turned) picture into the window, keeping its shape.
    int outW = 0;
    int outH = 0;
    SDL_GetRendererOutputSize(mRenderer, &outW, &outH);
    double angle = rotationDegrees(slot->transform);
    bool quarter = angle == 90.0 || angle == 270.0;
    double shownW = quarter ? h : w;
    double shownH = quarter ? w : h;
    double scale = std::min(outW / shownW, outH / shownH);
    SDL_Rect dst;
    dst.w = static_cast<int>(w * scale);
    dst.h = static_cast<int>(h * scale);
    dst.x = (outW - dst.w) / 2;
    dst.y = (outH - dst.h) / 2;
    SDL_SetRenderDrawColor(mRenderer, 0, 0, 0, 255);
    SDL_RenderClear(mRenderer);
    SDL_RenderCopyEx(mRenderer, mTexture, nullptr, &dst, angle, nullptr, SDL_FLIP_NONE);
    SDL_RenderPresent(mRenderer);
}

#endif  // KAVRA_HAVE_SDL2
