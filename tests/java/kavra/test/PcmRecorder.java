package kavra.test;

import java.util.ArrayList;

/** Stands in for the player's audio callback: keeps every PCM buffer it is handed. */
public final class PcmRecorder {
    private final ArrayList<byte[]> buffers = new ArrayList<>();

    public synchronized void onAudioBuffer(byte[] pcm) {
        buffers.add(pcm.clone());
    }

    public synchronized int count() {
        return buffers.size();
    }

    public synchronized byte[] bufferAt(int index) {
        return buffers.get(index).clone();
    }
}
