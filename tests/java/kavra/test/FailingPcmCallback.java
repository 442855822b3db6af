package kavra.test;

/** An audio callback whose every call throws, after counting itself. */
public final class FailingPcmCallback {
    private int calls;

    public synchronized void onAudioBuffer(byte[] pcm) {
        calls++;
        throw new IllegalStateException("audio sink refused " + pcm.length + " bytes");
    }

    public synchronized int calls() {
        return calls;
    }
}
