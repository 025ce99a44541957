// The page: pipes camera and microphone to the recorder, draws the preview, starts and stops takes.

import { copyAudioData, FrameSink, throughPort } from 'lumora-video-client/page';

declare class MediaStreamTrackProcessor<Data> {
  constructor(init: { track: MediaStreamTrack });
  readonly readable: ReadableStream<Data>;
}

const canvas = document.querySelector('canvas') as HTMLCanvasElement;
const button = document.querySelector('button') as HTMLButtonElement;
const [state, drops] = document.querySelectorAll('output');

async function feed(port: MessagePort): Promise<void> {
  const video = { width: 1920, height: 1080, frameRate: 30 }; // the helper takes no larger frames
  const [track] = (await navigator.mediaDevices.getUserMedia({ video })).getVideoTracks();
  const { readable } = new MediaStreamTrackProcessor<VideoFrame>({ track });
  const write = throughPort(port);
  for (;;) {
    const sink = new FrameSink(write, {
      onDrop: ({ dropped }) => (drops.value = `${dropped} frames dropped`),
    });
    try {
      return await readable.pipeTo(sink.writable, { preventCancel: true });
    } catch (error) {
      // The next sink has the new format, for which the recorder starts another helper.
      if ((error as { code?: string }).code !== 'FORMAT_CHANGED') throw error;
    }
  }
}

async function listen(port: MessagePort): Promise<void> {
  const format = { rate: 48000, channels: 2 } as const; // as in recorder.ts
  // With echo cancellation, which is the default, Chromium delivers any microphone at this rate.
  const [track] = (await navigator.mediaDevices.getUserMedia({ audio: true })).getAudioTracks();
  await new MediaStreamTrackProcessor<AudioData>({ track }).readable.pipeTo(
    new WritableStream({
      write(data) {
        port.postMessage(copyAudioData(data, format));
        data.close();
      },
    }),
  );
}

function show(port: MessagePort): void {
  const context = canvas.getContext('2d') as CanvasRenderingContext2D;
  let latest: VideoDecoderConfig;
  let last = 0; // timestamp of the latest chunk
  const makeDecoder = () =>
    new VideoDecoder({
      output(picture) {
        const { displayWidth: width, displayHeight: height } = picture;
        // Setting a side clears the canvas, so only when the camera's shape has changed.
        if (canvas.width !== width || canvas.height !== height) {
          Object.assign(canvas, { width, height });
        }
        context.drawImage(picture, 0, 0);
        port.postMessage(picture.timestamp); // so the helper sends no faster than we draw
        picture.close();
      },
      error({ message }) {
        state.value = message;
        decoder = makeDecoder(); // goes on at the next key frame
        port.postMessage(last); // acknowledges the chunks that won't be drawn
      },
    });
  let decoder = makeDecoder();
  port.onmessage = ({ data: { config = latest, chunk } }) => {
    last = chunk.timestamp;
    const isNew = decoder.state === 'unconfigured';
    if (isNew && chunk.type !== 'key') return port.postMessage(last);
    if (isNew || config !== latest) decoder.configure((latest = config));
    decoder.decode(new EncodedVideoChunk(chunk));
  };
}

function control(port: MessagePort): void {
  port.onmessage = ({ data }) => {
    state.value = data;
    button.textContent = data === 'recording' ? 'Stop' : 'Record';
    button.disabled = false;
  };
  button.onclick = () => {
    button.disabled = true; // until the recorder answers
    port.postMessage(button.textContent === 'Stop' ? 'stop' : 'record');
  };
}

addEventListener('message', ({ source, data, ports }) => {
  if (source !== window || data !== 'ports') return;
  const [frames, sound, preview, commands] = ports;
  show(preview);
  control(commands);
  feed(frames).catch(({ message }) => (state.value = message));
  listen(sound).catch(({ message }) => (state.value = `no sound: ${message}`));
});
