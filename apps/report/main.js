// Fills the page.

// The surface is built when it comes into view, or the page is printed.
function startSurfaceOnSight(report) {
  let isStarted = false;
  const start = () => {
    if (!isStarted) startSurface(report);
    isStarted = true;
    sight.disconnect();
  };
  const sight = new IntersectionObserver((entries) => entries.some((entry) => entry.isIntersecting) && start());
  sight.observe(byId('surface-stage'));
  addEventListener('beforeprint', start);
}

loadReport().then((report) => {
  fillHeader(report);
  fillDiagnosis(report);
  startRelighting(report);
  startMeasuring(report);
  startComparing(report);
  fillResults(report);
  fillInputs(report);
  fillRecord(report);
  startSurfaceOnSight(report);
  document.documentElement.dataset.ready = 'yes';
}).catch((error) => {
  byId('summary').textContent = `This page cannot be shown: ${error.message}`;
  throw error;
});
