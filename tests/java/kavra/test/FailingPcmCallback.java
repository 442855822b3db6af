package kavra.test;

/** An audio callback whose every call throws, after counting itself in {@code calls}. */
public final class FailingPcmCallback {
    private int calls;

    public synchronized void onAudioBuffer(byte[] pcm) {
        calls++;
        throw new IllegalStateException("audio sink refused " + pcm.length + " bytes");
    }
}
