#pragma once

#ifdef KAVRA_HAVE_SDL2

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "Platform/NativeWindow.h"

struct SDL_Window;
struct SDL_Renderer;
struct SDL_Texture;

// A native window on the desktop, for a viewer: buffers are filled in
// memory by the renderer's thread and shown by present(), which the thread
// that made the window calls from its event loop (the desktop's drawing
// calls belong to that thread). When pictures come faster than they are
// presented, the newest queued one is shown and older ones are recycled.
class SdlNativeWindow : public NativeWindow {
public:
    // Opens a resizable window. Check isOpen() afterwards.
    SdlNativeWindow(const char* title, int width, int height);
    ~SdlNativeWindow() override;

    bool isOpen() const { return mWindow != nullptr && mRenderer != nullptr; }
    // Handles pending window events and shows the newest queued buffer.
    // Returns false once the user asked to close the window.
    bool present();
    // Buffers presented so far.
    uint64_t presentedCount() const;

    int apiConnect(int api) override;
    int apiDisconnect(int api) override;
    int setUsage(uint32_t usage) override;
    int setScalingMode(int mode) override;
    int setBuffersTransform(int transform) override;
    int setBuffersGeometry(int width, int height, int format) override;
    int dequeueBuffer(NativeWindowBuffer** buffer) override;
    int lockBuffer(NativeWindowBuffer* buffer, uint32_t usage, const NativeWindowRect& bounds, void** address) override;
    int unlockBuffer(NativeWindowBuffer* buffer) override;
    int queueBuffer(NativeWindowBuffer* buffer, int fenceFd) override;

private:
    enum class SlotState { Free, Dequeued, Queued, Presenting };
    struct Slot {
        NativeWindowBuffer header;
        int transform;
        SlotState state;
        bool locked;
        uint64_t order;
        std::vector<uint8_t> bytes;
    };

    Slot* slotOf(NativeWindowBuffer* buffer);
    void draw(Slot* slot);

    SDL_Window* mWindow;
    SDL_Renderer* mRenderer;
    // Recreated when the buffer geometry changes; used only by present().
    SDL_Texture* mTexture;
    int mTextureWidth;
    int mTextureHeight;
    bool mVideoInitialised;

    mutable std::mutex mMutex;
    std::condition_variable mFreeCond;
    bool mConnected;
    int mTransform;
    int mWidth;
    int mHeight;
    int mFormat;
    uint64_t mQueueOrder;
    uint64_t mPresented;
    std::vector<std::unique_ptr<Slot>> mSlots;
};

#endif  // KAVRA_HAVE_SDL2
